// Reading /proc/net/unix, tcp and tcp6 (https://man7.org/linux/man-pages/man5/proc_pid_net.5.html).
#include "host/listen_queue.h"

#include "base/number.h"
#include "host/proc_files.h"

#include <sstream>

namespace quorbit {

namespace {

// "Num RefCount Protocol Flags Type St Inode Path". A connection that has not been accepted has the path of the
// listener and no socket of a process yet, which the kernel shows as the state "connecting".
std::optional<int64_t> waiting_on_path(const std::string &table, const std::string &path)
{
	std::optional<int64_t> waiting;
	std::istringstream lines(table);
	for (std::string line; std::getline(lines, line);) {
		std::istringstream fields(line);
		std::string number, references, protocol, flags, type, state, inode, where;
		fields >> number >> references >> protocol >> flags >> type >> state >> inode;
		std::getline(fields >> std::ws, where);
		if (where != path) continue;
		constexpr const char *listens = "00010000", *connecting = "02";
		if (flags == listens) waiting = waiting.value_or(0);
		if (state == connecting) waiting = waiting.value_or(0) + 1;
	}
	return waiting;
}

// "sl local_address rem_address st tx_queue:rx_queue ...", in hexadecimal. Of a socket that listens, the second queue
// counts connections.
void add_waiting_on_port(const std::string &table, int64_t port, std::optional<int64_t> &waiting)
{
	constexpr const char *listens = "0A";
	std::istringstream lines(table);
	for (std::string line; std::getline(lines, line);) {
		std::istringstream fields(line);
		std::string slot, local, remote, state, queues;
		fields >> slot >> local >> remote >> state >> queues;
		const size_t at = local.rfind(':'), queue = queues.find(':');
		if (state != listens || at == std::string::npos || queue == std::string::npos) continue;
		if (strtoll(local.c_str() + at + 1, nullptr, 16) != port) continue;
		waiting = waiting.value_or(0) + strtoll(queues.c_str() + queue + 1, nullptr, 16);
	}
}

} // namespace

std::optional<int64_t> connections_waiting(const std::string &net, const std::string &listen)
{
	if (listen.starts_with('/')) return waiting_on_path(read_proc_file(net + "/unix").value_or(""), listen);
	int64_t port = 0;
	if (!parse_number(std::string_view(listen).substr(listen.rfind(':') + 1), port)) return std::nullopt;
	std::optional<int64_t> waiting;
	for (const char *table : {"/tcp", "/tcp6"}) {
		add_waiting_on_port(read_proc_file(net + table).value_or(""), port, waiting);
	}
	return waiting;
}

} // namespace quorbit
