// A request of our own through a PHP of the host: a script that tells what this PHP is set to, and whose action must
// reach the store.
#pragma once

#include <map>
#include <string>

namespace quorbit {

struct ProbeAnswer {
	std::string trouble; // why the script did not run to its end, as a phrase; "" when it did
	int process = 0;     // that ran it
	// What it told: "version", "sapi", "account" (a number), "ini_file", "root" (device:inode of "/"), and the settings
	// of the agent ("zqs.app_name") and of PHP that matter to it ("open_basedir").
	std::map<std::string, std::string> told;

	// "" for what it did not tell.
	std::string value(const std::string &name) const;
};

// The script, in a folder of its own below the temporary one, which any account can read; gone with this value. Throws
// std::system_error when it cannot be written.
class ProbeScript {
public:
	ProbeScript();
	~ProbeScript();
	ProbeScript(const ProbeScript &) = delete;
	ProbeScript &operator=(const ProbeScript &) = delete;

	const std::string &path() const { return path_; }

private:
	std::string folder_, path_;
};

// Runs it with this program, a command line or CGI, for a few seconds at most.
ProbeAnswer probe_program(const std::string &program, const ProbeScript &script);

// Has the FPM that listens on `address` run it: the path of a socket, a port, or "host:port" with an address of this
// host. FastCGI 1.0: https://fastcgi-archives.github.io/FastCGI_Specification.html
ProbeAnswer probe_fpm(const std::string &address, const ProbeScript &script);

// Asks for that page: "http://host:port/path". It tells nothing.
ProbeAnswer probe_url(const std::string &url);
// "/path" of such an address, without the query.
std::string path_of_url(const std::string &url);

} // namespace quorbit
