// quorbit status: whether every PHP process of the host reports, and what to do where one does not.
#include "ask/command.h"

#include "ask/host_state.h"
#include "ask/now.h"
#include "ask/sending.h"
#include "base/clock.h"
#include "host/board_file.h"
#include "print/output.h"
#include "print/report.h"
#include "store/open_reader.h"
#include "store/profile_orders.h"

#include <nlohmann/json.hpp>
#include <algorithm>
#include <stdexcept>

namespace quorbit {

namespace {

struct StatusOptions {
	bool json = false;
	std::string proc = "/proc";
};

std::string daemon_text(const DaemonFacts &daemon)
{
	if (!daemon.answers) return "No daemon answers.\n";
	return "The daemon is running" + (daemon.process ? " as process " + std::to_string(daemon.process) : "") + ".\n";
}

void print_for_people(const DaemonConfig &config, const HostFacts &facts, const std::vector<Finding> &findings,
	const std::vector<ApplicationRow> &applications, const Sending &sending)
{
	put(daemon_text(facts.daemon) + sending.text);
	const bool may_read = !facts.daemon.refusal && has_store(config);
	if (may_read) put(profiles_text(open_profiles(config.store_file()), facts.now_ms));
	const std::string processes = processes_text(facts, list_width());
	put("\n" + (processes.empty() ? "There is no PHP process on this host.\n" : processes));
	if (!applications.empty()) put("\n" + status_text(applications, facts.now_ms));
	if (may_read) put(dropped_text(open_reader(config)->dropped({facts.now_ms - day_ms}, "")));
	auto has_sent = [](const ApplicationRow &row) { return row.packets > 0; };
	if (may_read && std::none_of(applications.begin(), applications.end(), has_sent))
		put("\nNothing has been received yet.\n");
	put("\n" + (findings.empty() ? "Nothing is amiss.\n" : findings_text(findings, may_colour())));
}

// Those of the host, one of sending what is stored to the store of a fleet, and those of this moment.
std::vector<Finding> all_findings(const DaemonConfig &config, const HostFacts &facts, const Sending &sending)
{
	auto findings = findings_of(facts);
	if (sending.finding) findings.push_back(*sending.finding);
	if (!BoardFile(board_file(config)).is_open()) return findings;
	for (std::string &line : now_findings(requests_now(config)))
		findings.push_back({"connections_wait", std::move(line), "quorbit now", {}});
	return findings;
}

Sending look_at_sending(const DaemonConfig &config, int64_t now_ms)
{
	return !access_refusal(config) && has_store(config) ? sending_of(config, now_ms) : Sending();
}

// All that is told of the host. `applications` are filled in as far as the store may be read.
HostFacts look(const DaemonConfig &config, const std::string &proc, std::vector<ApplicationRow> &applications)
{
	std::unique_ptr<Reader> store;
	if (!access_refusal(config) && has_store(config)) {
		store = open_reader(config);
		applications = store->applications();
	}
	return host_state(config, store.get(), applications, proc);
}

int status(const DaemonConfig &config, const StatusOptions &options)
{
	std::vector<ApplicationRow> applications;
	const HostFacts facts = look(config, options.proc, applications);
	if (auto refusal = access_refusal(config); refusal && !facts.daemon.answers) throw std::runtime_error(*refusal);
	const Sending sending = look_at_sending(config, facts.now_ms);
	const auto findings = all_findings(config, facts, sending);
	if (options.json)
		put(json_text(host_json(facts, findings, applications), true));
	else
		print_for_people(config, facts, findings, applications, sending);
	return findings.empty() ? 0 : 1;
}

} // namespace

std::string status_json(const DaemonConfig &config)
{
	std::vector<ApplicationRow> applications;
	const HostFacts facts = look(config, StatusOptions().proc, applications);
	const auto findings = all_findings(config, facts, look_at_sending(config, facts.now_ms));
	return json_text(host_json(facts, findings, applications), false);
}

CommandRun add_status(CLI::App &command)
{
	auto options = std::make_shared<StatusOptions>();
	command.add_flag("--json", options->json, "for programs");
	set_examples(command,
		{{"quorbit status", "a table of PHP's processes, and a line for everything that is amiss"},
			{"quorbit status >/dev/null || mail -s amiss root", "the exit status alone"},
			{"quorbit status --json | jq .findings", "for programs"}});
	return [options](const DaemonConfig &config) { return status(config, *options); };
}

} // namespace quorbit
