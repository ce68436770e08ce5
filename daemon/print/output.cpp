// Where commands print to.
#include "print/output.h"

#include "base/text.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace quorbit {

void put(std::string_view text)
{
	fwrite(text.data(), 1, text.size(), stdout);
}

namespace {

bool progress_shown = false;

void end_progress()
{
	if (progress_shown) fputs("\r\x1b[K", stderr);
	progress_shown = false;
}

} // namespace

void tell(const std::string &line)
{
	end_progress();
	fprintf(stderr, "%s\n", printable(line).c_str());
}

void progress(const std::string &line)
{
	constexpr size_t columns = 79;
	if (!isatty(STDERR_FILENO)) return;
	end_progress();
	if (line.empty()) return;
	fputs(cut(printable(line), columns).c_str(), stderr);
	fflush(stderr);
	progress_shown = true;
}

Working::Working(std::string what) : what_(std::move(what))
{
	if (!isatty(STDERR_FILENO)) return;
	teller_ = std::jthread([this](const std::stop_token &ending) {
		using namespace std::chrono_literals;
		std::unique_lock lock(mutex_);
		for (int seconds = 1; !ended_.wait_for(lock, ending, 1s, [] { return false; }) && !ending.stop_requested();
			 seconds++)
			progress("  " + what_ + ", " + std::to_string(seconds) + " s");
	});
}

Working::~Working()
{
	if (!teller_.joinable()) return;
	teller_.request_stop();
	teller_.join();
	progress("");
}

bool may_colour()
{
	const char *forbidden = getenv("NO_COLOR"), *kind = getenv("TERM");
	return isatty(STDOUT_FILENO) && !(forbidden && *forbidden) && kind && strcmp(kind, "dumb") != 0;
}

size_t output_width()
{
	size_t columns = terminal_width();
	return columns ? std::clamp(columns, size_t{80}, size_t{200}) : 100;
}

size_t list_width()
{
	return terminal_width() ? output_width() : SIZE_MAX;
}

} // namespace quorbit
