// Query plans, as the databases answer EXPLAIN: one list of column names, one list of values per row.
#pragma once

#include "base/json_text.h"

#include <optional>
#include <string>
#include <vector>

namespace quorbit {

// In plain words, which tables the plan proves to be read row by row. "" when it proves
// none.
//   MySQL, MariaDB   access type ALL (https://mariadb.com/kb/en/explain/)
//   PostgreSQL       a node "Seq Scan on" or "Parallel Seq Scan on"
//   SQLite           a loop of its opcodes over all rows of a table, which nothing leaves early
std::string plan_finding(const Json &plan);

// The one table that a plan proves to be read row by row; nothing when it proves none or several.
struct PlanScan {
	std::string table;     // or its alias, as the plan has it; "" where the plan does not name it
	bool has_keys = false; // of MySQL: there is an index that it could have taken and did not
};
std::optional<PlanScan> single_scan(const Json &plan);

// What would help a statement whose plan proves such a read (facts/plan_advice.cpp): the index to create, or why none
// would serve. "" when nothing follows for certain enough. `kind` is the statement without its values.
std::string plan_suggestion(const Json &plan, std::string_view statement, std::string_view kind);

// The plan as aligned lines of at most `width` columns, without empty columns; after `most` rows one line says how
// many are left out.
std::vector<std::string> plan_lines(const Json &plan, size_t width, size_t most);

} // namespace quorbit
