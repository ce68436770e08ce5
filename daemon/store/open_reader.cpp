// Finding the store.
#include "store/open_reader.h"

#include "store/sqlite_reader.h"

#include <stdexcept>
#include <sys/stat.h>

namespace quorbit {

bool has_store(const DaemonConfig &config)
{
	struct stat status;
	return stat(config.store_file().c_str(), &status) == 0 && status.st_size > 0;
}

std::unique_ptr<Reader> open_reader(const DaemonConfig &config)
{
	if (!has_store(config)) {
		throw std::runtime_error("there is no store at " + config.store_file() + " yet; see `quorbit status`");
	}
	return open_sqlite_reader(config.store_file());
}

} // namespace quorbit
