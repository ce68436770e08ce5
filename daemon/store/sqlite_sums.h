// Questions about sums, asked of the tables that the rollup writes.
#pragma once

#include "store/reader.h"
#include "store/sqlite.h"

namespace quorbit {

// Each reads within the transaction that the caller has open, if any. Throw SqliteError.
SumAnswer read_sums(Database &database, const SumQuestion &question);
std::vector<SeriesPoint> read_series(Database &database, const SeriesQuestion &question);
std::optional<KeyFacts> read_key(Database &database, SumKey key, int64_t id);
std::vector<MachineRow> read_machine(Database &database, const MachineQuestion &question);
std::vector<ReleaseRow> read_releases(Database &database, const std::string &application);

// What this host is called in answers.
std::string this_host();

} // namespace quorbit
