// Finding the store.
#include "store/open_reader.h"

#include "store/clickhouse_reader.h"
#include "store/fleet_address.h"
#include "store/sqlite_reader.h"

#include <grp.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace quorbit {

namespace {

std::string account_name(uid_t id)
{
	const struct passwd *entry = getpwuid(id);
	return entry ? entry->pw_name : "account " + std::to_string(id);
}

std::string group_name(gid_t id)
{
	const struct group *entry = getgrgid(id);
	return entry ? entry->gr_name : std::to_string(id);
}

} // namespace

bool has_store(const DaemonConfig &config)
{
	if (!config.store_url.empty()) return true;
	struct stat status;
	return stat(config.store_file().c_str(), &status) == 0 && status.st_size > 0;
}

std::optional<std::string> access_refusal(const DaemonConfig &config)
{
	if (!config.store_url.empty()) return std::nullopt;
	const std::string folder = config.folder(), store = config.store_file();
	struct stat status;
	if (stat(folder.c_str(), &status) != 0) return std::nullopt;
	if (access(folder.c_str(), R_OK | X_OK) != 0) {
		return account_name(geteuid()) + " may not look into " + folder + "; root and members of the group " +
			group_name(status.st_gid) + " may";
	}
	if (stat(store.c_str(), &status) != 0 || access(store.c_str(), R_OK) == 0) return std::nullopt;
	const std::string owner = account_name(status.st_uid);
	return account_name(geteuid()) + " may not read " + store + "; " + (status.st_uid ? "root and " + owner : owner) +
		" may";
}

std::unique_ptr<Reader> open_reader(const DaemonConfig &config)
{
	if (!config.store_url.empty()) return open_clickhouse_reader(fleet_of(config).url);
	if (auto refusal = access_refusal(config)) throw std::runtime_error(*refusal);
	if (!has_store(config)) {
		throw std::runtime_error("there is no store at " + config.store_file() + " yet; see `quorbit status`");
	}
	return open_sqlite_reader(config.store_file());
}

} // namespace quorbit
