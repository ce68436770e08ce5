// The server's life: its address, its account, its handlers, its end.
#include "web/web.h"

#include "base/account.h"
#include "base/address.h"
#include "base/bounded_server.h"
#include "base/files.h"
#include "print/output.h"
#include "receive/daemonize.h"
#include "sample/sample.h"
#include "sample/sample_now.h"
#include "web/browser.h"
#include "web/handlers.h"
#include "web/profiles.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr size_t least_password = 12;

// The first line of the file, which nobody else may be able to read.
std::string password_of(const std::string &path)
{
	struct stat status;
	if (stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)))
		throw std::runtime_error(path + " is open to others: chmod 600");
	std::string text = read_file(path);
	text.resize(text.find_first_of("\r\n") == std::string::npos ? text.size() : text.find_first_of("\r\n"));
	if (text.size() < least_password)
		throw std::runtime_error(path + ": a password has at least " + std::to_string(least_password) + " bytes");
	return text;
}

// Takes the address, before root is given up.
void bind(BoundedServer &server, const ListenAddress &address)
{
	errno = 0;
	bool bound = false;
	if (address.unix_socket()) {
		struct stat status;
		if (lstat(address.host.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) unlink(address.host.c_str());
		server.set_address_family(AF_UNIX);
		const mode_t before = umask(0117); // its group's web server may connect
		bound = server.bind_to_port(address.host, 80);
		umask(before);
	} else {
		bound = server.bind_to_port(address.host, address.port);
	}
	if (bound) return;
	const std::string where = address.unix_socket() ? address.host : address.origin();
	throw std::runtime_error("cannot listen on " + where + ": " + (errno ? strerror(errno) : "address in use"));
}

// Ends the server when the process is told to end. To be made before there are threads, which inherit the mask.
class EndingSignals {
public:
	EndingSignals()
	{
		sigemptyset(&signals_);
		for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals_, signal);
		pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
		::signal(SIGPIPE, SIG_IGN);
	}

	// Calls `look` every few seconds until then.
	void wait_and_stop(BoundedServer &server, const std::function<void()> &look) const
	{
		constexpr struct timespec pause = {3, 0};
		while (sigtimedwait(&signals_, nullptr, &pause) < 0) look();
		server.stop();
	}

private:
	sigset_t signals_;
};

void introduce(const ListenAddress &address, const WebOptions &options, const Sessions &sessions)
{
	std::string origin = address.origin();
	if (address.unix_socket() && !options.hosts.empty()) origin = "http://" + options.hosts[0];
	put(std::string("Quorbit's page") + (options.sample ? " with sample data" : "") +
		", until Ctrl-C. This link lets one browser in:\n\n    " + origin + "/login#" + sessions.link_token() + "\n\n");
	if (options.password_file.empty())
		put("Other browsers and programs show this token (docs/api.md):\n\n    curl -H 'Authorization: Bearer " +
			sessions.access_token() + "' " + origin + "/api/v1/requests\n\n");
	else
		put("Other browsers and programs show the password of " + options.password_file + ".\n");
	fflush(stdout); // whoever reads it through a pipe waits for it
	if (!address.loopback())
		tell("quorbit: " + origin +
			" can be reached from other hosts, and nothing on the way is encrypted: put a web "
			"server with TLS in front");
}

void show_sample(Sample &sample, Profiles &profiles)
{
	sample.fill();
	int64_t order = 0;
	std::string application;
	auto orders = sample.take_profile(order, application);
	profiles.adopt(std::move(orders), order, application, Sample::profile_seconds);
}

} // namespace

int run_web(const DaemonConfig &config, const WebOptions &options)
{
	const ListenAddress address = parse_listen(options.listen);
	if (!address.loopback() && options.password_file.empty()) {
		throw std::runtime_error(
			"an address that other hosts reach needs --password-file; better, listen on a UNIX "
			"socket behind a web server that authenticates");
	}
	const EndingSignals ending;
	Sessions sessions(options.password_file.empty() ? random_token() : password_of(options.password_file));
	BoundedServer server;
	OpenedBrowser browser; // knows who began
	bind(server, address);
	std::optional<Sample> sample;
	if (options.sample) sample.emplace();
	const DaemonConfig &source = sample ? sample->config() : config;
	become_owner_of(source.folder());
	confine_root_to(source.folder());
	if (geteuid() == 0) setenv("SQLITE_TMPDIR", source.folder().c_str(), 1); // it may write nowhere else
	Profiles profiles(source);
	if (sample) show_sample(*sample, profiles);
	auto status = options.status;
	auto now = options.now;
	if (sample) {
		status = [&sample](const DaemonConfig &) { return sample->status(); };
		now = [](const DaemonConfig &) { return sample_now(); };
	}
	const ApiSource api = {source, status, now, &profiles, options.sample};
	Metrics metrics({source, [&source] { return daemon_answers(source); }, nullptr});
	add_handlers(server, {api, sessions, metrics, allowed_hosts(address, options.hosts), address.port});
	introduce(address, options, sessions);
	if (sample) tell("The sample goes with this process; until then: quorbit top --since 1d --root " + sample->root());
	if (options.open) browser.open(address.origin() + "/login#" + sessions.link_token());
	std::thread ends([&] { ending.wait_and_stop(server, [&profiles] { profiles.look(); }); });
	const bool served = server.listen_after_bind();
	pthread_kill(ends.native_handle(), SIGTERM); // when it stopped by itself
	ends.join();
	if (address.unix_socket()) unlink(address.host.c_str());
	return served ? 0 : 1;
}

} // namespace quorbit
