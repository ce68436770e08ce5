// Releases as SQL.
#include "store/releases.h"

#include "store/layout.h"

namespace quorbit {

void mark_release(const std::string &store_path, const ReleaseRow &release)
{
	Database database(store_path, Database::Mode::read_write);
	require_newest_layout(database);
	database.execute("BEGIN IMMEDIATE");
	Statement insert(database, "INSERT INTO release (at_ms, name, application) VALUES (?, ?, ?)");
	insert.bind(1, release.at_ms).bind(2, release.name).bind(3, release.application).run();
	Statement surplus(
		database, "DELETE FROM release WHERE id IN (SELECT id FROM release ORDER BY at_ms DESC LIMIT -1 OFFSET ?)");
	surplus.bind(1, most_releases).run();
	database.execute("COMMIT");
}

} // namespace quorbit
