// Starting the daemon again after a crash, within bounds.
#include "receive/supervisor.h"

#include "base/log.h"
#include "store/profile_sessions.h"

#include <csignal>
#include <cstring>
#include <deque>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace quorbit {

namespace {

constexpr size_t most_crashes = 5;
constexpr int64_t crash_seconds = 60;  // within which that many are too many
constexpr int most_ending_seconds = 6; // the child's own bound is five

sigset_t watched_signals()
{
	sigset_t signals;
	sigemptyset(&signals);
	for (int signal : {SIGTERM, SIGINT, SIGCHLD}) sigaddset(&signals, signal);
	return signals;
}

// The signal that came within that many seconds, or -1.
int next_signal(int64_t seconds)
{
	sigset_t signals = watched_signals();
	struct timespec most = {seconds, 0};
	return sigtimedwait(&signals, nullptr, &most);
}

pid_t start(const std::function<int()> &work)
{
	pid_t parent = getpid(), child = fork();
	if (child != 0) return child;
	prctl(PR_SET_PDEATHSIG, SIGTERM);
	prctl(PR_SET_NAME, "quorbit");
	if (getppid() != parent) _exit(0); // it died before it could be noticed
	sigset_t signals;
	sigemptyset(&signals);
	sigaddset(&signals, SIGCHLD);
	sigprocmask(SIG_UNBLOCK, &signals, nullptr);
	_exit(work());
}

// Waits for the child's end. True when the two were told to end.
bool wait_for(pid_t child, int &status)
{
	constexpr int64_t long_time = 3600;
	bool ending = false;
	for (int seconds = 0; waitpid(child, &status, WNOHANG) != child;) {
		int signal = next_signal(ending ? 1 : long_time);
		if (signal == SIGTERM || signal == SIGINT) {
			ending = true;
			kill(child, SIGTERM);
		}
		if (ending && signal == -1 && ++seconds > most_ending_seconds) {
			kill(child, SIGKILL);
			break;
		}
	}
	return ending;
}

std::string how_it_ended(int status)
{
	if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status)) + ", " + strsignal(WTERMSIG(status));
	return "status " + std::to_string(WEXITSTATUS(status));
}

// Whether the pause was not cut short by a signal to end.
bool pause_seconds(int64_t seconds)
{
	for (int64_t end = monotonic_second() + seconds, left; (left = end - monotonic_second()) > 0;) {
		int signal = next_signal(left);
		if (signal == SIGTERM || signal == SIGINT) return false;
	}
	return true;
}

} // namespace

int supervise(const std::function<int()> &work, int &childs_descriptor)
{
	sigset_t signals = watched_signals();
	sigprocmask(SIG_BLOCK, &signals, nullptr);
	prctl(PR_SET_NAME, "quorbit-parent");
	std::deque<int64_t> crashes;
	for (bool first = true;; first = false) {
		pid_t child = start(work);
		if (first) close(std::exchange(childs_descriptor, -1));
		if (child == -1) {
			log_message(LogLevel::critical, std::string("the daemon cannot be started: ") + strerror(errno));
			return 1;
		}
		int status = 0;
		if (wait_for(child, status) || status == 0) return 0;
		if (first && WIFEXITED(status) && WEXITSTATUS(status) == status_not_started) return 1;
		int64_t now = monotonic_second();
		crashes.push_back(now);
		while (now - crashes.front() >= crash_seconds) crashes.pop_front();
		std::string ended = "the daemon, process " + std::to_string(child) + ", ended by " + how_it_ended(status);
		if (crashes.size() >= most_crashes) {
			log_message(LogLevel::critical, ended + ", the fifth time within a minute: it is not started again");
			return 1;
		}
		log_message(LogLevel::error, ended + ": starting it again");
		if (!pause_seconds(static_cast<int64_t>(crashes.size()) - 1)) return 0;
	}
}

} // namespace quorbit
