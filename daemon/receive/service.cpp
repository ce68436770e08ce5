// Telling the service manager, and leaving the daemon to it.
#include "receive/service.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace quorbit {

namespace {

// The service of the package, which has the default root.
constexpr const char *running_systemd = "/run/systemd/system"; // sd_booted(3)
constexpr const char *enabled_service = "/etc/systemd/system/multi-user.target.wants/quorbit.service";
constexpr const char *service_root = "/var";

bool exists(const std::string &path)
{
	struct stat status;
	return lstat(path.c_str(), &status) == 0;
}

} // namespace

ServiceManager::ServiceManager()
{
	const char *name = getenv("NOTIFY_SOCKET");
	if (!name || (name[0] != '/' && name[0] != '@')) return;
	address_ = name;
	if (address_[0] == '@') address_[0] = '\0';
	unsetenv("NOTIFY_SOCKET");
}

void ServiceManager::tell(const std::string &state) const
{
	struct sockaddr_un address = {};
	if (!is_there() || address_.size() >= sizeof address.sun_path) return;
	address.sun_family = AF_UNIX;
	memcpy(address.sun_path, address_.data(), address_.size());
	int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	if (descriptor == -1) return;
	const auto length = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + address_.size());
	sendto(descriptor, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<struct sockaddr *>(&address), length);
	close(descriptor);
}

bool is_left_to_service(const DaemonConfig &config, const std::string &system_root)
{
	return config.folder() == default_daemon_config(service_root).folder() && exists(system_root + running_systemd) &&
		exists(system_root + enabled_service);
}

} // namespace quorbit
