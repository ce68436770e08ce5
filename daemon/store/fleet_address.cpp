// Where the store of the fleet is, for commands.
#include "store/fleet_address.h"

#include "base/files.h"
#include "facts/applications.h"

#include <stdexcept>

namespace quorbit {

FleetAddress fleet_of(const DaemonConfig &config)
{
	const std::string file = config.applications_file();
	const std::string &asked = config.store_url;
	const bool is_address = !asked.empty() && asked != configured_fleet;
	Applications settings;
	if (!is_address && inode_of(file)) settings = parse_applications(read_file(file, true));
	if (!is_address && settings.store_url.empty())
		throw std::runtime_error("no store of a fleet is known: " + file + " has no store_url");
	FleetAddress fleet{parse_store_url(is_address ? asked : settings.store_url), settings.cluster};
	read_password(fleet.url, settings.store_password_file);
	return fleet;
}

} // namespace quorbit
