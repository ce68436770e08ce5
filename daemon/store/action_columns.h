// Rows of actions to and from statements, by the table of their columns (store/action_row.h).
#pragma once

#include "store/action_row.h"
#include "store/sqlite.h"

namespace quorbit {

// The columns' names, each after a comma: they follow `id` in a SELECT, and others in an INSERT.
std::string action_column_names();

// Binds a row's values to the parameters from `first` on, texts as views into the row, of which a column keeps 1,024
// bytes.
void bind_row(Statement &insert, int first, const ActionRow &row);

// The row whose id is the statement's first column, with action_column_names() after it.
ActionRow read_row(Statement &select);

// A text as a column keeps it: columns are for finding and listing, the packet has the full texts.
std::string_view column_text(std::string_view text);

} // namespace quorbit
