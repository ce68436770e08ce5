// Where the store of the fleet is, for commands.
#include "store/fleet_address.h"

#include "base/files.h"
#include "facts/applications.h"

#include <stdexcept>

namespace quorbit {

FleetAddress fleet_of(const DaemonConfig &config)
{
	const std::string file = config.applications_file();
	Applications settings;
	if (inode_of(file)) settings = parse_applications(read_file(file, true));
	if (settings.store_url.empty())
		throw std::runtime_error("no store of a fleet is known: " + file + " has no store_url");
	FleetAddress fleet{parse_store_url(settings.store_url), settings.cluster};
	read_password(fleet.url, settings.store_password_file);
	return fleet;
}

} // namespace quorbit
