// Starting the operator's browser.
#pragma once

#include <string>
#include <unistd.h>

namespace quorbit {

// The browser is given a file that leads on to the link: what stands on a command line, every account can read. The
// file is the operator's alone, and goes with this object.
class OpenedBrowser {
public:
	OpenedBrowser() = default;
	~OpenedBrowser();
	OpenedBrowser(const OpenedBrowser &) = delete;
	OpenedBrowser &operator=(const OpenedBrowser &) = delete;

	// Says so on standard error when there is no browser to start, or root made this object: a browser is not for root.
	void open(const std::string &link);

private:
	const bool root_ = geteuid() == 0;
	std::string file_;
};

} // namespace quorbit
