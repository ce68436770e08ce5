// Reading ".quorbit.cfg".
#include "base/config.h"

#include "base/files.h"

#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace quorbit {

namespace {

// Every name that the daemon has in its folder. Another account may have left something there under any of them: what
// is opened under a name of this table is opened as open_trusted() does, and a test tries each. (SQLite opens the two
// beside the store, and follows no link.)
enum FolderFile {
	config_file,
	socket_file,
	pid_file,
	fresh_pid_file,
	lock_file,
	log_file,
	store_file,
	store_log_file,
	store_index_file,
	store_copy_file,
	former_store_file,
	reserve_file,
	orders_file,
	applications_file,
	board_file,
	fresh_board_file,
	folder_files,
};
constexpr const char *folder_names[] = {
	".quorbit.cfg",
	".quorbit.sock",
	"quorbit.pid",
	"quorbit.pid.new",
	"quorbit.pid.lock",
	"daemon.log",
	"quorbit.db",
	"quorbit.db-wal",
	"quorbit.db-shm",
	"quorbit.db-new",
	"quorbit.db-old",
	"quorbit.db-reserve",
	"quorbit.db-orders",
	"applications.conf",
	"board",
	"board.new",
};
static_assert(std::size(folder_names) == folder_files);

} // namespace

std::string DaemonConfig::folder() const
{
	return std::filesystem::path(pid_file).parent_path().string();
}
std::string DaemonConfig::fresh_pid_file() const
{
	return pid_file + ".new";
}
std::string DaemonConfig::lock_file() const
{
	return pid_file + ".lock";
}
std::string DaemonConfig::store_file() const
{
	return folder() + "/" + folder_names[FolderFile::store_file];
}
std::string DaemonConfig::applications_file() const
{
	return folder() + "/" + folder_names[FolderFile::applications_file];
}

DaemonConfig parse_daemon_config(std::string_view text)
{
	DaemonConfig config;
	const std::pair<std::string_view, std::string *> keys[] = {
		{"zqs.daemon_log_level", &config.log_level},
		{"zqs.daemon_log_file_name", &config.log_file},
		{"zqs.pid_file", &config.pid_file},
		{"zqs.ipc_listen_file", &config.socket_file},
	};
	while (!text.empty()) {
		std::string_view line = text.substr(0, text.find('\n'));
		text.remove_prefix(std::min(text.size(), line.size() + 1));
		if (line.ends_with('\r')) line.remove_suffix(1);
		size_t equals = line.find('=');
		if (equals == std::string_view::npos) continue;
		for (const auto &[key, value] : keys) {
			if (line.substr(0, equals) == key) *value = line.substr(equals + 1);
		}
	}
	for (std::string *path : {&config.log_file, &config.pid_file, &config.socket_file}) {
		if (!path->empty()) *path = std::filesystem::absolute(*path).string();
	}
	if (config.pid_file.empty()) throw std::runtime_error("the configuration names no zqs.pid_file");
	if (config.socket_file.empty()) throw std::runtime_error("the configuration names no zqs.ipc_listen_file");
	return config;
}

DaemonConfig read_daemon_config(const std::string &path)
{
	return parse_daemon_config(read_file(path));
}

DaemonConfig read_trusted_config(const std::string &path)
{
	return parse_daemon_config(read_file(path, true));
}

DaemonConfig default_daemon_config(const std::string &runtime_root)
{
	std::string folder = std::filesystem::absolute(runtime_root).string() + "/log/quorbit/";
	DaemonConfig config;
	config.log_file = folder + folder_names[FolderFile::log_file];
	config.pid_file = folder + folder_names[FolderFile::pid_file];
	config.socket_file = folder + folder_names[FolderFile::socket_file];
	return config;
}

} // namespace quorbit
