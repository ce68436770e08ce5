// Query plans, as the databases answer EXPLAIN: one list of column names, one list of values per row.
#pragma once

#include "base/json_text.h"

#include <string>
#include <vector>

namespace quorbit {

// In plain words, which tables the plan proves to be read row by row. "" when it proves
// none.
//   MySQL, MariaDB   access type ALL (https://mariadb.com/kb/en/explain/)
//   PostgreSQL       a node "Seq Scan on" or "Parallel Seq Scan on"
//   SQLite           a loop of its opcodes over all rows of a table, which nothing leaves early
std::string plan_finding(const Json &plan);

// The plan as aligned lines of at most `width` columns, without empty columns; after `most` rows one line says how
// many are left out.
std::vector<std::string> plan_lines(const Json &plan, size_t width, size_t most);

} // namespace quorbit
