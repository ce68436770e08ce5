// Reading /proc.
#include "host/proc_files.h"

#include <algorithm>
#include <fcntl.h>
#include <sstream>
#include <string_view>
#include <unistd.h>

namespace quorbit {

std::optional<std::string> read_proc_file(const std::string &path)
{
	constexpr size_t most = size_t{16} << 20;
	int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
	if (file == -1) return std::nullopt;
	std::string text;
	char part[32768];
	ssize_t length = 0;
	while (text.size() < most && (length = read(file, part, sizeof part)) > 0)
		text.append(part, static_cast<size_t>(length));
	close(file);
	if (length < 0) return std::nullopt;
	return text;
}

std::string link_target(const std::string &path)
{
	char target[4096];
	ssize_t length = readlink(path.c_str(), target, sizeof target);
	return length > 0 ? std::string(target, static_cast<size_t>(length)) : "";
}

std::optional<ProcStat> read_proc_stat(const std::string &folder)
{
	auto text = read_proc_file(folder + "/stat");
	if (!text) return std::nullopt;
	// The command is in parentheses and may hold some itself.
	const size_t begin = text->find('('), end = text->rfind(')');
	if (begin == std::string::npos || end == std::string::npos || end < begin) return std::nullopt;
	ProcStat stat;
	stat.command = text->substr(begin + 1, end - begin - 1);
	std::istringstream fields(text->substr(end + 1));
	std::string skipped;
	int64_t user = 0, system = 0;
	fields >> skipped >> stat.parent;
	for (int field = 5; field < 14; field++) fields >> skipped;
	fields >> user >> system;
	for (int field = 16; field < 22; field++) fields >> skipped;
	fields >> stat.started_ticks;
	stat.cpu_ticks = user + system;
	if (!fields) return std::nullopt;
	return stat;
}

std::optional<ProcStatus> read_proc_status(const std::string &folder)
{
	auto text = read_proc_file(folder + "/status");
	if (!text) return std::nullopt;
	ProcStatus status;
	std::istringstream lines(*text);
	for (std::string line; std::getline(lines, line);) {
		std::istringstream fields(line.substr(line.find(':') + 1));
		uint64_t real = 0, id = 0;
		if (line.starts_with("Uid:") && fields >> real >> id) status.user = static_cast<uid_t>(id);
		if (line.starts_with("Gid:") && fields >> real >> id) status.groups = {static_cast<gid_t>(id)};
		if (!line.starts_with("Groups:")) continue;
		while (fields >> id) status.groups.push_back(static_cast<gid_t>(id));
	}
	if (status.groups.empty()) return std::nullopt;
	return status;
}

std::vector<std::string> read_proc_arguments(const std::string &folder)
{
	const std::string text = read_proc_file(folder + "/cmdline").value_or("");
	std::vector<std::string> arguments;
	for (size_t begin = 0; begin < text.size();) {
		const size_t end = std::min(text.find('\0', begin), text.size());
		arguments.push_back(text.substr(begin, end - begin));
		begin = end + 1;
	}
	return arguments;
}

std::optional<std::vector<std::string>> read_proc_mapped(const std::string &folder)
{
	auto text = read_proc_file(folder + "/maps");
	if (!text) return std::nullopt;
	std::vector<std::string> files;
	std::istringstream lines(*text);
	// "7f12a000-7f12b000 r-xp 00000000 08:01 4711   /usr/lib/x.so"; one file takes several lines.
	for (std::string line; std::getline(lines, line);) {
		const size_t path = line.find('/');
		if (path == std::string::npos) continue;
		std::string file = line.substr(path);
		if (std::find(files.begin(), files.end(), file) == files.end()) files.push_back(std::move(file));
	}
	return files;
}

int64_t read_proc_boot_ms(const std::string &proc)
{
	const std::string text = read_proc_file(proc + "/stat").value_or("");
	const size_t at = text.find("\nbtime ");
	return at == std::string::npos ? 0 : 1000 * atoll(text.c_str() + at + sizeof "\nbtime " - 1);
}

} // namespace quorbit
