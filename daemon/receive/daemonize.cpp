// Lock, fork, socket, pid file, and back.
#include "receive/daemonize.h"

#include "receive/listener.h"
#include "base/log.h"
#include "base/text.h"
#include "receive/server.h"
#include "base/files.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <malloc.h>
#include <memory>
#include <sstream>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace quorbit {

namespace {

[[noreturn]] void fail(const std::string &what)
{
	throw std::system_error(errno, std::generic_category(), what);
}

// Root needs only to have begun: where the folder is another account's, everything in it is that account's too.
void become_owner_of(const std::string &folder)
{
	struct stat status;
	if (geteuid() != 0 || stat(folder.c_str(), &status) != 0 || status.st_uid == 0) return;
	if (setgroups(0, nullptr) != 0 || setgid(status.st_gid) != 0 || setuid(status.st_uid) != 0)
		fail("becoming the owner of " + folder);
}

// The descriptor that holds the lock, or -1 when another process has it. The file stays: removing it would let two
// daemons lock files of the same name. Nobody else can open it: whoever can read a file can lock it.
int take_lock(const std::string &path)
{
	constexpr mode_t ours_alone = 0600;
	int descriptor = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, ours_alone);
	if (descriptor == -1) fail(path);
	struct stat status;
	if (fstat(descriptor, &status) == 0 && status.st_uid == geteuid()) fchmod(descriptor, ours_alone);
	if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) return descriptor;
	if (errno != EWOULDBLOCK) fail(path);
	close(descriptor);
	return -1;
}

// Who holds the lock, as /proc/locks tells it: "process 123", or "another process".
std::string lock_holder(const std::string &path)
{
	struct stat status;
	std::ifstream locks("/proc/locks");
	if (stat(path.c_str(), &status) != 0) return "another process";
	const std::string inode = ":" + std::to_string(status.st_ino);
	for (std::string line; std::getline(locks, line);) {
		// "1: FLOCK  ADVISORY  WRITE 123 08:01:4567 0 EOF"; one that waits has "->" after the number.
		std::istringstream fields(line);
		std::string number, kind, advisory, access, process, file;
		fields >> number >> kind >> advisory >> access >> process >> file;
		if (kind == "FLOCK" && file.ends_with(inode)) return "process " + process;
	}
	return "another process";
}

// The lock, or -1 when a daemon answers. One that has the lock listens a moment later; who has it and does not is told.
int take_lock_or_find_daemon(const DaemonConfig &config)
{
	constexpr int tries = 50;
	constexpr useconds_t between_us = 20000;
	for (int i = 0; i < tries; i++) {
		// A daemon that holds no lock of ours may be another user's, or another program that agents are content with.
		if (accepts_connections(config.socket_file)) return -1;
		int lock = take_lock(config.lock_file());
		if (lock != -1) return lock;
		usleep(between_us);
	}
	throw std::runtime_error(config.lock_file() + " is locked by " + lock_holder(config.lock_file()) +
		", and nobody answers on " + config.socket_file);
}

// Written beside and renamed, so that no reader gets half a number or follows a link.
void write_pid_file(const DaemonConfig &config)
{
	std::string fresh = config.fresh_pid_file(), text = std::to_string(getpid()) + "\n";
	unlink(fresh.c_str());
	int descriptor = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0640);
	if (descriptor == -1) fail(fresh);
	bool written = write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
	close(descriptor);
	if (!written || rename(fresh.c_str(), config.pid_file.c_str()) != 0) fail(config.pid_file);
}

// The number in the pid file, 0 when there is none.
int process_in(const std::string &pid_file)
{
	try {
		return atoi(read_file(pid_file).c_str());
	} catch (const std::runtime_error &) {
		return 0;
	}
}

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
	for (int ignored : {SIGPIPE, SIGHUP, SIGXFSZ}) ::signal(ignored, SIG_IGN);
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
std::unique_ptr<Listener> start_listening(const DaemonConfig &config)
{
	// A daemon that another user started without the right to store would only keep one that has it from starting.
	const std::string store = config.store_file();
	if (access(store.c_str(), F_OK) == 0 && access(store.c_str(), W_OK) != 0) fail(store);
	block_ending_signals();
	raise_descriptor_limit();
	auto listener = std::make_unique<Listener>(config.socket_file);
	write_pid_file(config);
	log_message(LogLevel::info, "listening on " + config.socket_file);
	return listener;
}

int serve(const DaemonConfig &config, std::unique_ptr<Listener> listener)
{
	int status = 0;
	// Packets larger than this get pages of their own, which go back as soon as they are stored.
	mallopt(M_MMAP_THRESHOLD, 256 << 10);
	try {
		ProfileSessions sessions;
		StoreWriter writer(config.store_file(), sessions);
		Server(std::move(listener), config.applications_file(), writer, sessions).run();
	} catch (const std::exception &failure) {
		log_message(LogLevel::critical, failure.what());
		status = 1;
	}
	if (process_in(config.pid_file) == getpid()) unlink(config.pid_file.c_str());
	log_message(LogLevel::info, "ended");
	return status;
}

// The background process. `report` tells the one that waits how it went: a byte of zero, or the reason of a failure.
int live_in_background(const DaemonConfig &config, int report)
{
	std::unique_ptr<Listener> listener;
	try {
		listener = start_listening(config);
	} catch (const std::exception &failure) {
		log_message(LogLevel::critical, failure.what());
		[[maybe_unused]] ssize_t told = write(report, failure.what(), strlen(failure.what()));
		return 1;
	}
	leave_terminal();
	[[maybe_unused]] ssize_t told = write(report, "", 1);
	close(report);
	return serve(config, std::move(listener));
}

int start_in_background(const DaemonConfig &config)
{
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe");
	pid_t child = fork();
	if (child == -1) fail("fork");
	if (child == 0) {
		close(ends[0]);
		setsid();
		if (chdir("/") != 0) _exit(1);
		_exit(live_in_background(config, ends[1]));
	}
	close(ends[1]);
	char reason[512];
	ssize_t length = read(ends[0], reason, sizeof reason);
	if (length == 1 && reason[0] == 0) return 0;
	if (length <= 0) throw std::runtime_error("the daemon ended before it listened");
	fprintf(stderr, "quorbit: %s\n", printable({reason, static_cast<size_t>(length)}).c_str());
	return 1;
}

} // namespace

int run_daemon(const std::string &config_path, bool foreground)
{
	reset_inherited();
	try {
		DaemonConfig config = read_trusted_config(config_path);
		become_owner_of(config.folder());
		log_open(config.log_file, log_level_by_name(config.log_level));
		int lock = take_lock_or_find_daemon(config);
		if (lock == -1) return 0;
		if (foreground) return serve(config, start_listening(config));
		return start_in_background(config);
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

} // namespace quorbit
