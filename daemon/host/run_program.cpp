// Running a program of the host for what it prints.
#include "host/run_program.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr size_t most_bytes = size_t{4} << 20;

[[noreturn]] void fail(int error, const std::string &what)
{
	throw std::system_error(error, std::generic_category(), what);
}

pid_t start(const std::vector<std::string> &arguments, int output)
{
	std::vector<char *> words;
	for (const std::string &argument : arguments) words.push_back(const_cast<char *>(argument.c_str()));
	words.push_back(nullptr);
	posix_spawn_file_actions_t actions;
	posix_spawn_file_actions_init(&actions);
	posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
	posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
	posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
	pid_t child = -1;
	int error = posix_spawn(&child, words[0], &actions, nullptr, words.data(), environ);
	posix_spawn_file_actions_destroy(&actions);
	if (error != 0) fail(error, arguments[0]);
	return child;
}

// Until it closes its output. False when that takes too long.
bool read_all(int input, std::string &printed, int seconds)
{
	const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
	char block[16384];
	while (true) {
		auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
		struct pollfd ready = {input, POLLIN, 0};
		if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) == 0) return false;
		ssize_t count = read(input, block, sizeof block);
		if (count == 0) return true;
		if (count < 0 && errno != EINTR) return false;
		if (count > 0 && printed.size() < most_bytes) printed.append(block, static_cast<size_t>(count));
	}
}

} // namespace

ProgramRun run_program(const std::vector<std::string> &arguments, int seconds)
{
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0) fail(errno, "pipe");
	ProgramRun run;
	pid_t child = -1;
	try {
		child = start(arguments, ends[1]);
	} catch (...) {
		close(ends[0]);
		close(ends[1]);
		throw;
	}
	close(ends[1]);
	run.ended = read_all(ends[0], run.printed, seconds);
	close(ends[0]);
	if (!run.ended) kill(child, SIGKILL);
	int status = 0;
	while (waitpid(child, &status, 0) == -1 && errno == EINTR) {}
	run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
	return run;
}

} // namespace quorbit
