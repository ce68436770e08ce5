// Clients of the daemon for bench/daemon.py: connections that send metric packets as agents do, and one that asks for
// its configuration meanwhile. A packet has the time to leave that an agent gives it, 100 ms and 100 ms more per MiB;
// one that has not left by then is lost and its connection opened again.
//
//     daemon_load SOCKET APPLICATION KIND BYTES CONNECTIONS RATE SECONDS QUERY_MS
//
// KIND is "action" (statements, and a trace for the rest of BYTES) or "empty" (nothing but empty records). RATE is
// packets a second of all connections together, 0 for as fast as the daemon takes them; with SECONDS 0 each connection
// sends one. A query is sent QUERY_MS after the last was answered (0: none). Prints its figures as one JSON object,
// then holds its connections until its standard input ends.
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

std::string socket_path;

double now()
{
	return Seconds(Clock::now().time_since_epoch()).count();
}

std::string record(int type, const std::string &body)
{
	std::string bytes = {static_cast<char>(type), static_cast<char>(body.size() >> 16),
		static_cast<char>(body.size() >> 8), static_cast<char>(body.size())};
	return bytes + body;
}

std::string number(int32_t value)
{
	return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string item(const std::string &text)
{
	return std::to_string(text.size()) + ":" + text;
}

// An action of about `bytes`, the header included.
std::string action_packet(const std::string &application, size_t bytes, int page)
{
	std::string head = record(0x11, application) + record(0x0E, "empty key");
	head += record(0x12, "WebAction/URI/bench%2Fpage" + std::to_string(page)) + record(0x21, "/bench/page.php");
	head +=
		record(0x1A, number(3)) + record(0x1B, number(900)) + record(0x14, number(0)) + record(0x15, number(40 + page));
	head += record(0x16, number(8));
	std::string tail = record(0x24, "user-agent: bench") + record(0x24, "httpStatus: 200");
	const size_t least_trace = 80;
	std::string statements;
	for (int i = 0; i < 16 && 4 + head.size() + tail.size() + statements.size() + 250 < bytes; i++) {
		std::string text = "SELECT id, name, price FROM products WHERE category = " + std::to_string(1000 + i) +
			" AND stock > 0 ORDER BY price LIMIT 20";
		statements += record(0x27, item("1") + item("MySQL") + item(text));
	}
	size_t used = 4 + head.size() + tail.size() + statements.size();
	std::string trace;
	if (bytes > used + least_trace) {
		std::string text(bytes - used - least_trace, 'x');
		trace = record(0x25, "[0,40,\"\",\"\",1,\"PHP\",\"execute\",{\"sql\":\"" + text + "\"},[]]") +
			record(0x26, "77ab01");
	}
	return record(0x0B, head + statements + trace + tail);
}

std::string empty_packet(size_t bytes)
{
	std::string body;
	body.reserve(bytes);
	while (body.size() + 4 < bytes) body.append("\x24\0\0\0", 4);
	return record(0x0B, body);
}

int connect_to_daemon()
{
	int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	struct sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	strncpy(address.sun_path, socket_path.c_str(), sizeof address.sun_path - 1);
	struct timeval timeout = {1, 0};
	setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
	setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
	if (connect(descriptor, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0) return descriptor;
	close(descriptor);
	return -1;
}

struct Client {
	int descriptor = -1;
	const std::string *packet = nullptr;
	size_t sent = 0;
	double deadline = 0;
};

class Load {
public:
	Load(std::vector<std::string> packets, size_t connections) : packets_(std::move(packets)), clients_(connections)
	{
		epoll_ = epoll_create1(EPOLL_CLOEXEC);
		for (Client &client : clients_) open(client);
		for (Client &client : clients_) idle_.push_back(&client);
	}

	void run(double rate, double seconds)
	{
		double begin = now();
		if (seconds == 0) {
			while (!idle_.empty()) {
				Client *client = idle_.front();
				idle_.pop_front();
				start(*client);
				(client->packet ? blocked_ : rested_)++;
			}
		}
		for (double time = begin; time - begin < seconds; time = now()) {
			size_t due = rate == 0 ? started + 256 : static_cast<size_t>((time - begin) * rate);
			while (started < due && !idle_.empty()) {
				Client *client = idle_.front();
				idle_.pop_front();
				start(*client);
				if (client->packet)
					blocked_++;
				else
					idle_.push_back(client);
			}
			progress(rate == 0 && !idle_.empty() ? 0 : 1);
		}
		while (blocked_ > 0) progress(5);
		elapsed = now() - begin;
	}

	size_t started = 0, sent = 0, lost = 0;
	double elapsed = 0;

private:
	void open(Client &client)
	{
		client.descriptor = connect_to_daemon();
		if (client.descriptor == -1) return;
		struct epoll_event event = {};
		event.events = EPOLLOUT | EPOLLET;
		event.data.ptr = &client;
		epoll_ctl(epoll_, EPOLL_CTL_ADD, client.descriptor, &event);
	}

	void start(Client &client)
	{
		client.packet = &packets_[started++ % packets_.size()];
		client.sent = 0;
		client.deadline = now() + 0.1 * static_cast<double>(1 + (client.packet->size() >> 20));
		go_on(client);
	}

	// Sends what the socket takes; the client has no packet any more when it is gone, or lost.
	void go_on(Client &client)
	{
		if (client.descriptor == -1) open(client);
		while (client.packet && client.sent < client.packet->size()) {
			const char *rest = client.packet->data() + client.sent;
			ssize_t count =
				send(client.descriptor, rest, client.packet->size() - client.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
			if (count == -1 && errno == EAGAIN) return;
			if (count == -1) return fail(client);
			client.sent += static_cast<size_t>(count);
		}
		client.packet = nullptr;
		sent++;
	}

	void fail(Client &client)
	{
		lost++;
		client.packet = nullptr;
		close(client.descriptor);
		client.descriptor = -1;
	}

	void finished(Client &client)
	{
		blocked_--;
		idle_.push_back(&client);
	}

	void progress(int wait_ms)
	{
		struct epoll_event events[256];
		int count = epoll_wait(epoll_, events, 256, wait_ms);
		for (int i = 0; i < count; i++) {
			Client &client = *static_cast<Client *>(events[i].data.ptr);
			if (!client.packet) continue;
			go_on(client);
			if (!client.packet) finished(client);
		}
		double time = now();
		if (blocked_ == 0 || time - looked_ < 0.01) return;
		looked_ = time;
		for (Client &client : clients_) {
			if (!client.packet || time < client.deadline) continue;
			fail(client);
			finished(client);
		}
	}

	std::vector<std::string> packets_;
	std::vector<Client> clients_;
	std::deque<Client *> idle_;
	size_t blocked_ = 0, rested_ = 0;
	double looked_ = 0;
	int epoll_;
};

// How long queries took, in milliseconds; one that failed took 1000.
std::vector<double> ask(const std::string &application, int query_ms, const std::atomic<bool> &ending)
{
	std::string body = record(0x11, application) + record(0x0E, "empty key") + record(0x0C, std::string(8, '\0'));
	body += record(0x0D, "zqs.agent_enabled=true") + record(0x1C, "PHP Version=5.6.40");
	const std::string query = record(0x0A, body);
	std::vector<double> taken;
	int descriptor = connect_to_daemon();
	while (!ending) {
		usleep(static_cast<useconds_t>(query_ms) * 1000);
		double begin = now();
		if (descriptor == -1) descriptor = connect_to_daemon();
		char answer[65536];
		bool answered =
			send(descriptor, query.data(), query.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(query.size()) &&
			recv(descriptor, answer, sizeof answer, 0) > 0;
		taken.push_back(answered ? (now() - begin) * 1000 : 1000);
		if (answered) continue;
		close(descriptor);
		descriptor = -1;
	}
	close(descriptor);
	std::sort(taken.begin(), taken.end());
	return taken;
}

double quantile(const std::vector<double> &sorted, double share)
{
	return sorted.empty()
		? 0
		: sorted[std::min(sorted.size() - 1, static_cast<size_t>(share * static_cast<double>(sorted.size())))];
}

} // namespace

int main(int argc, char **argv)
{
	if (argc != 9) return 2;
	struct rlimit limit;
	getrlimit(RLIMIT_NOFILE, &limit);
	limit.rlim_cur = limit.rlim_max;
	setrlimit(RLIMIT_NOFILE, &limit);
	socket_path = argv[1];
	const std::string application = argv[2], kind = argv[3];
	const size_t bytes = strtoul(argv[4], nullptr, 10), connections = strtoul(argv[5], nullptr, 10);
	const double rate = atof(argv[6]), seconds = atof(argv[7]);
	const int query_ms = atoi(argv[8]);

	std::vector<std::string> packets;
	if (kind == "empty")
		packets.push_back(empty_packet(bytes));
	else
		for (int page = 0; page < (bytes > 100000 ? 4 : 100); page++)
			packets.push_back(action_packet(application, bytes, page));
	std::atomic<bool> ending = false;
	std::vector<double> taken;
	std::thread asker;
	if (query_ms > 0) asker = std::thread([&] { taken = ask(application, query_ms, ending); });
	Load load(std::move(packets), connections);
	load.run(rate, seconds);
	ending = true;
	if (asker.joinable()) asker.join();
	printf(
		"{\"started\": %zu, \"sent\": %zu, \"lost\": %zu, \"seconds\": %.3f, \"queries\": %zu, \"late\": %zu, "
		"\"p50_ms\": %.3f, \"p99_ms\": %.3f, \"most_ms\": %.3f}\n",
		load.started, load.sent, load.lost, load.elapsed, taken.size(),
		static_cast<size_t>(taken.end() - std::upper_bound(taken.begin(), taken.end(), 100.0)), quantile(taken, 0.5),
		quantile(taken, 0.99), quantile(taken, 1));
	fflush(stdout);
	char end;
	while (read(STDIN_FILENO, &end, 1) > 0) {}
	return 0;
}
