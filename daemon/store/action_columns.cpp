// Binding and reading by the kind of a column's field.
#include "store/action_columns.h"

namespace quorbit {

std::string action_column_names()
{
	std::string names;
	for (const ActionColumn &column : action_columns) names += std::string(", ") + column.name;
	return names;
}

std::string_view column_text(std::string_view text)
{
	return text.substr(0, 1024);
}

void bind_row(Statement &insert, int first, const ActionRow &row)
{
	for (const ActionColumn &column : action_columns) {
		const int parameter = first++;
		if (auto number = std::get_if<int64_t ActionRow::*>(&column.field))
			insert.bind(parameter, row.**number);
		else if (auto flag = std::get_if<bool ActionRow::*>(&column.field))
			insert.bind(parameter, int64_t{row.**flag});
		else if (auto text = std::get_if<std::string ActionRow::*>(&column.field)) {
			if (!column.optional || !(row.**text).empty()) insert.bind(parameter, column_text(row.**text));
		} else if (row.exact) {
			insert.bind(parameter, (*row.exact).*std::get<int64_t ExactFigures::*>(column.field));
		}
	}
}

ActionRow read_row(Statement &select)
{
	ActionRow row;
	row.id = select.integer(0);
	int at = 0;
	for (const ActionColumn &column : action_columns) {
		at++;
		if (select.is_null(at)) continue;
		if (auto number = std::get_if<int64_t ActionRow::*>(&column.field)) {
			row.**number = select.integer(at);
		} else if (auto flag = std::get_if<bool ActionRow::*>(&column.field)) {
			row.**flag = select.integer(at) != 0;
		} else if (auto text = std::get_if<std::string ActionRow::*>(&column.field)) {
			row.**text = select.text(at);
		} else {
			if (!row.exact) row.exact.emplace();
			(*row.exact).*std::get<int64_t ExactFigures::*>(column.field) = select.integer(at);
		}
	}
	return row;
}

} // namespace quorbit
