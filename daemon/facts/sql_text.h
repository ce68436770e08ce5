// Statements distinguished by what they do, not by the values they do it with.
#pragma once

#include <string>
#include <string_view>

namespace quorbit {

// The statement with numbers and quoted text replaced by "?", in one line, without comments; identifiers keep their
// digits, and the list of an IN becomes "(?, ...)". `vendor` as agents name it: for "MySQL" double quotes hold text and
// backslashes escape, for all others double quotes hold names.
std::string normalise_sql(std::string_view statement, std::string_view vendor);

// What a statement is about: its first word in capitals, and its first table as far as that can be told without a
// parser, without quotes; "" for none.
struct SqlSubject {
	std::string verb, table;
};
SqlSubject subject_of_sql(std::string_view kind);

} // namespace quorbit
