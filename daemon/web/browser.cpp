// A file that leads on, and xdg-open.
#include "web/browser.h"

#include "print/output.h"

#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quorbit {

OpenedBrowser::~OpenedBrowser()
{
	if (!file_.empty()) unlink(file_.c_str());
}

void OpenedBrowser::open(const std::string &link)
{
	if (root_) return tell("quorbit: --open starts no browser as root: open the link yourself");
	const char *folder = getenv("XDG_RUNTIME_DIR");
	constexpr int suffix = 5;
	std::string path = std::string(folder ? folder : "/tmp") + "/quorbit-XXXXXX.html";
	const int file = mkostemps(path.data(), suffix, O_CLOEXEC);
	if (file == -1) return tell("quorbit: --open: no file can be made in " + path);
	file_ = path;
	const std::string text = "<!DOCTYPE html><meta http-equiv=\"refresh\" content=\"0; url=" + link + "\">\n";
	const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
	close(file);
	char program[] = "xdg-open";
	char *arguments[] = {program, path.data(), nullptr};
	pid_t child = 0;
	if (!written || posix_spawnp(&child, program, nullptr, nullptr, arguments, environ) != 0)
		return tell("quorbit: --open found no xdg-open: open the link yourself");
	int status = 0;
	waitpid(child, &status, 0);
	if (status != 0) tell("quorbit: --open: xdg-open found no browser: open the link yourself");
}

} // namespace quorbit
