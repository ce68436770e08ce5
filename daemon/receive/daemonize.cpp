// Leaving the process that starts it, serving, and ending.
#include "receive/daemonize.h"

#include "base/account.h"
#include "base/files.h"
#include "base/log.h"
#include "base/text.h"
#include "export/exporter.h"
#include "export/metrics_server.h"
#include "export/otlp_exporter.h"
#include "facts/applications.h"
#include "host/board_file.h"
#include "receive/listener.h"
#include "receive/presence.h"
#include "receive/server.h"
#include "receive/service.h"
#include "receive/supervisor.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <memory>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace quorbit {

namespace {

// Leaves nothing of the process that started us: a pipe or terminal of its own would stay open as long as the daemon
// lives.
void reset_inherited()
{
	closefrom(STDERR_FILENO + 1);
	sigset_t none;
	sigemptyset(&none);
	sigprocmask(SIG_SETMASK, &none, nullptr);
	for (int signal = 1; signal < SIGRTMIN; signal++) {
		if (signal != SIGKILL && signal != SIGSTOP) ::signal(signal, SIG_DFL);
	}
	// What would end a process that knows nothing of it. (Only SIGTERM and SIGINT are to end a daemon; its files are
	// opened for each line or read when they change, so that SIGHUP has nothing to ask for.)
	for (int ignored :
		{SIGPIPE, SIGHUP, SIGXFSZ, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGIO, SIGPWR, SIGSTKFLT})
		::signal(ignored, SIG_IGN);
	umask(027);
}

void leave_terminal()
{
	int null = open("/dev/null", O_RDWR | O_CLOEXEC);
	for (int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, descriptor);
	if (null > STDERR_FILENO) close(null);
}

// One connection per thread of every PHP process of the host.
void raise_descriptor_limit()
{
	struct rlimit limit;
	if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
	limit.rlim_cur = limit.rlim_max;
	setrlimit(RLIMIT_NOFILE, &limit);
}

// Blocked before there are threads or a socket: only the event loop takes them, and it clears up.
void block_ending_signals()
{
	sigset_t ending;
	sigemptyset(&ending);
	sigaddset(&ending, SIGTERM);
	sigaddset(&ending, SIGINT);
	sigprocmask(SIG_BLOCK, &ending, nullptr);
}

// Everything that can fail before agents can be served.
std::unique_ptr<Listener> start_listening(const DaemonConfig &config, Presence &presence)
{
	// A daemon that another user started without the right to store would only keep one that has it from starting.
	const std::string store = config.store_file();
	if (access(store.c_str(), F_OK) == 0 && access(store.c_str(), W_OK) != 0) throw_errno(store);
	block_ending_signals();
	raise_descriptor_limit();
	auto listener = std::make_unique<Listener>(config.socket_file);
	if (!presence.keep()) throw std::runtime_error(config.lock_file() + ": another process has it");
	log_message(LogLevel::info, "listening on " + config.socket_file);
	return listener;
}

// What takes the stored out of the host, each in a thread of its own.
struct Ways {
	Ways(const DaemonConfig &config, StoreWriter &writer)
		: exporter(config.store_file(), writer),
		  otlp(config, writer),
		  metrics(
			  {config, [] { return true; }, [&writer] { return writer.unwritten(); }, [this] { return otlp.sent(); }})
	{
	}

	void apply(const Applications &settings)
	{
		exporter.set_settings(
			{settings.store_url, settings.store_password_file, settings.host_name, settings.store_seconds});
		otlp.set_settings({settings.otlp_url, settings.otlp_headers, settings.otlp_format, settings.otlp_send,
			settings.otlp_functions, settings.host_name, settings.otlp_seconds});
		metrics.set_listen(settings.metrics_listen);
	}

	// False when one of them has not ended after so long: a disk holds it up, and would hold up the destructor.
	bool end(std::chrono::milliseconds most)
	{
		const bool exporter_ended = exporter.end(most), otlp_ended = otlp.end(most), metrics_ended = metrics.end(most);
		return exporter_ended && otlp_ended && metrics_ended;
	}

	Exporter exporter;
	OtlpExporter otlp;
	MetricsServer metrics;
};

// Ends the process here when a disk holds up the threads that write and send.
void end_writing(std::unique_ptr<Ways> ways, std::unique_ptr<StoreWriter> writer, const Presence &presence)
{
	constexpr std::chrono::milliseconds most(4100), most_of_way(300); // five seconds in all
	const bool ways_ended = ways->end(most_of_way);
	const bool written = writer->end(most);
	if (ways_ended && written) {
		ways.reset();
		return;
	}
	if (!written)
		log_message(LogLevel::error,
			"the disk holds up the end: " + std::to_string(writer->unwritten()) +
				" packets and queries were not stored before the end");
	presence.withdraw();
	_exit(0);
}

int serve(
	const DaemonConfig &config, Presence &presence, std::unique_ptr<Listener> listener, const ServiceManager *manager)
{
	int status = 0;
	// Packets larger than this get pages of their own, which go back as soon as they are stored.
	mallopt(M_MMAP_THRESHOLD, 256 << 10);
	ProfileSessions sessions;
	auto writer = std::make_unique<StoreWriter>(config.store_file(), sessions);
	auto ways = std::make_unique<Ways>(config, *writer);
	auto apply = [&ways](const Applications &settings) { ways->apply(settings); };
	try {
		Server server(std::move(listener), config.applications_file(), *writer, apply, sessions);
		server.watch_board(board_file(config));
		server.run([&] {
			if (manager) manager->tell("WATCHDOG=1");
			return presence.keep();
		});
	} catch (const std::exception &failure) {
		log_message(LogLevel::critical, failure.what());
		status = 1;
	}
	if (manager) manager->tell("STOPPING=1");
	end_writing(std::move(ways), std::move(writer), presence);
	presence.withdraw();
	log_message(LogLevel::info, "ended");
	return status;
}

// The background process that serves. `report` tells the one that waits for the first of them how it went: a byte of
// zero, or the reason of a failure. It is -1 for the others.
int live_in_background(const DaemonConfig &config, Presence &presence, int report)
{
	std::unique_ptr<Listener> listener;
	try {
		listener = start_listening(config, presence);
	} catch (const std::exception &failure) {
		log_message(LogLevel::critical, failure.what());
		if (report != -1) {
			[[maybe_unused]] ssize_t told = write(report, failure.what(), strlen(failure.what()));
		}
		return status_not_started;
	}
	if (report != -1) {
		[[maybe_unused]] ssize_t told = write(report, "", 1);
		close(report);
	}
	return serve(config, presence, std::move(listener), nullptr);
}

int start_in_background(const DaemonConfig &config, Presence &presence)
{
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0) throw_errno("pipe");
	pid_t child = fork();
	if (child == -1) throw_errno("fork");
	if (child == 0) {
		close(ends[0]);
		setsid();
		if (chdir("/") != 0) _exit(1);
		leave_terminal();
		_exit(supervise([&] { return live_in_background(config, presence, ends[1]); }, ends[1]));
	}
	close(ends[1]);
	char reason[512];
	ssize_t length = read(ends[0], reason, sizeof reason);
	if (length == 1 && reason[0] == 0) return 0;
	if (length <= 0) throw std::runtime_error("the daemon ended before it listened");
	fprintf(stderr, "quorbit: %s\n", printable({reason, static_cast<size_t>(length)}).c_str());
	return 1;
}

// Under a service manager this is the only daemon that counts: with another one in its place it has failed, and is
// started again until that is gone.
int serve_in_foreground(const DaemonConfig &config, Presence &presence)
{
	const ServiceManager manager;
	if (!presence.is_ours()) {
		if (!manager.is_there()) return 0;
		throw std::runtime_error("a daemon that this service has not started, process " +
			std::to_string(running_daemon(config)) + ", answers on " + config.socket_file + ": end it");
	}
	auto listener = start_listening(config, presence);
	manager.tell("READY=1");
	return serve(config, presence, std::move(listener), &manager);
}

} // namespace

int run_daemon(const std::string &config_path, bool foreground)
{
	reset_inherited();
	try {
		DaemonConfig config = read_trusted_config(config_path);
		become_owner_of(config.folder());
		log_open(config.log_file, log_level_by_name(config.log_level));
		if (!foreground && is_left_to_service(config)) {
			log_message(LogLevel::info, "not started: that is for quorbit.service to do");
			return 0;
		}
		Presence presence(config);
		if (foreground) return serve_in_foreground(config, presence);
		return presence.is_ours() ? start_in_background(config, presence) : 0;
	} catch (const std::exception &failure) {
		log_message(LogLevel::critical, failure.what());
		fprintf(stderr, "quorbit: %s\n", printable(failure.what()).c_str());
		return 1;
	}
}

int running_daemon(const DaemonConfig &config)
{
	int process = process_in(config.pid_file);
	return process > 0 && (kill(process, 0) == 0 || errno == EPERM) ? process : 0;
}

bool daemon_answers(const DaemonConfig &config)
{
	return accepts_connections(config.socket_file);
}

bool runs_replaced_binary(int process)
{
	char path[4096];
	std::string link = "/proc/" + std::to_string(process) + "/exe";
	ssize_t length = readlink(link.c_str(), path, sizeof path);
	return length > 0 && std::string_view(path, static_cast<size_t>(length)).ends_with(" (deleted)");
}

} // namespace quorbit
