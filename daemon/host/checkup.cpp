// The table of checks, in the order in which a request's report passes what they look at.
#include "host/checkup.h"

#include <algorithm>
#include <filesystem>

namespace quorbit {

namespace {

using Findings = std::vector<Finding>;

void add(Findings &findings, const char *check, std::string what, std::string remedy)
{
	findings.push_back({check, std::move(what), std::move(remedy), {}});
}

void full_disk(const Checkup &checkup, const char *check, Findings &findings)
{
	constexpr int64_t least_bytes = int64_t{32} << 20;
	if (checkup.free_bytes >= least_bytes) return;
	add(findings, check,
		"the file system of " + checkup.host.folder.path + " has " + std::to_string(checkup.free_bytes >> 20) +
			" MiB left: the daemon stores by evicting what is older",
		"free some space there, or lower store_mb in applications.conf");
}

void clock_off(const Checkup &checkup, const char *check, Findings &findings)
{
	if (!checkup.future_ms) return;
	add(findings, check,
		"an action is stamped " + std::to_string((checkup.future_ms - checkup.host.now_ms) / 1000) +
			" s in the future: the clock has been set back since, and ranges of time miss what came meanwhile",
		"timedatectl shows whether the clock is kept by NTP");
}

void store_unreadable(const Checkup &checkup, const char *check, Findings &findings)
{
	if (checkup.store_trouble.empty()) return;
	add(findings, check, "the store cannot be read: " + checkup.store_trouble,
		!checkup.store_remedy.empty()
			? checkup.store_remedy
			: "run `quorbit doctor` as root; if the file is damaged, move it away, and the daemon begins a new one");
}

void two_daemons(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const DaemonProcess &other : checkup.daemons) {
		const std::string folder = std::filesystem::path(other.config).parent_path();
		if (folder == checkup.host.folder.path || checkup.host.folder.path.empty()) continue;
		add(findings, check,
			"a second daemon, process " + std::to_string(other.id) + ", serves " + folder +
				": what agents with that zqs.runtime_root send is not shown here",
			"give all PHPs one zqs.runtime_root and kill " + std::to_string(other.id));
	}
}

void account_refused(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const AccountRefusal &refusal : checkup.refusals) {
		add(findings, check,
			"tried as account " + refusal.account + ": " + refusal.what + ", so its requests are not reported",
			"namei -l " + checkup.host.daemon.socket +
				" shows who may pass each folder; where the modes allow it, ausearch -m avc or dmesg says what "
				"refuses");
	}
}

void denied(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const std::string &line : checkup.denials)
		add(findings, check, "SELinux or AppArmor has refused something: " + line,
			"allow PHP's processes the folder " + checkup.host.folder.path + " in that policy");
}

void ini_not_read(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const std::string &file : checkup.strays) {
		std::string folders;
		for (const PhpCheckup &php : checkup.phps) {
			if (!php.php.path.empty() && !php.php.scan_folder.empty())
				folders += (folders.empty() ? "" : ", ") + php.title + " reads " + php.php.scan_folder;
		}
		add(findings, check,
			file + " loads the agent, but no PHP reads that folder" + (folders.empty() ? "" : ": " + folders),
			"`quorbit setup enable` writes the file where PHP looks for it");
	}
}

void php_unfit(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const PhpCheckup &one : checkup.phps) {
		const bool wanted = one.named || !one.loading.empty();
		if (!wanted || one.php.trouble.empty()) continue;
		add(findings, check,
			one.title + " cannot load the agent: " + one.php.trouble +
				(one.php.build.empty() ? "" : "; this one has " + one.php.build),
			"use a thread-safe PHP 5.6 for it" +
				(one.loading.empty() ? std::string() : ", or take the line out of " + one.loading.front()));
	}
}

void loaded_twice(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const PhpCheckup &one : checkup.phps) {
		const bool twice = one.complaint.find("already loaded") != std::string::npos;
		if (one.loading.empty() || (one.loading.size() < 2 && !twice)) continue;
		const std::string where =
			one.loading.size() < 2 ? "two lines of " + one.loading[0] : one.loading[0] + " and " + one.loading[1];
		add(findings, check, one.title + " is told twice to load the agent, by " + where + ": every start warns of it",
			"take one line extension=zqprof.so out of " + one.loading.back());
	}
}

bool is_enabled_nowhere(const Checkup &checkup)
{
	return std::none_of(checkup.phps.begin(), checkup.phps.end(),
		[](const PhpCheckup &one) { return one.php.path.empty() || one.php.enabled; });
}

void not_enabled(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const PhpCheckup &one : checkup.phps) {
		if (!one.php.path.empty() && one.named && one.php.trouble.empty() && one.loading.empty() && !one.php.enabled)
			add(findings, check, one.title + " does not load the agent", "quorbit setup enable " + one.php.path);
	}
	const bool any_named =
		std::any_of(checkup.phps.begin(), checkup.phps.end(), [](const PhpCheckup &one) { return one.named; });
	if (!any_named && is_enabled_nowhere(checkup))
		add(findings, check, "no PHP of this host loads the agent", "quorbit setup enable");
}

void does_not_load(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const PhpCheckup &one : checkup.phps) {
		if (one.php.path.empty() || one.loading.empty() || one.php.enabled || !one.php.trouble.empty()) continue;
		add(findings, check,
			one.title + " does not load the agent, though " + one.loading.front() +
				" says so: " + (one.complaint.empty() ? "it gives no reason" : one.complaint),
			"see that the path in that line is right: ls -l " + one.php.extension_folder + "/zqprof.so");
	}
}

void xdebug(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const PhpCheckup &one : checkup.phps) {
		if (one.xdebug_as_extension)
			add(findings, check,
				one.title + " loads Xdebug with extension=, which breaks the output of threaded servers",
				"load it with zend_extension=");
		const std::string shown = one.probe.value("xdebug.default_enable");
		if (!shown.empty() && shown != "0")
			add(findings, check,
				one.title + ": Xdebug takes the engine's errors for itself, so actions come without their errors",
				"set xdebug.default_enable = 0");
	}
}

void terminated(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const auto &[pool, timeout] : checkup.terminate_timeouts) {
		std::string what = "FPM pool ";
		what.append(pool).append(" ends requests after ").append(timeout);
		add(findings, check,
			what + " with a signal (request_terminate_timeout): they show as killed, with what was last known of them",
			"set PHP's max_execution_time lower than that, which ends the script alone");
	}
}

void conf_wrong(const Checkup &checkup, const char *check, Findings &findings)
{
	auto in_file = [&checkup] { return checkup.host.folder.path + "/applications.conf"; };
	for (const std::string &problem : checkup.conf_problems)
		add(findings, check, in_file().append(", ").append(problem).append(": it has no effect"),
			"man 5 applications.conf");
	for (const std::string &name : checkup.unused_sections)
		add(findings, check,
			in_file().append(" has settings for \"").append(name).append("\", and no agent goes by that name"),
			"quorbit status lists the names that agents have: zqs.app_name in php.ini or in the pool");
}

// A known reason for what FPM says; "" for none.
std::string why_not_run(const PhpCheckup &one)
{
	const std::string &why = one.probe.trouble;
	if (why.find("open_basedir") != std::string::npos || why.find("Operation not permitted") != std::string::npos)
		return "; open_basedir keeps it from scripts in " + std::filesystem::temp_directory_path().string();
	const bool unseen = why.find("script unknown") != std::string::npos ||
		why.find("File not found") != std::string::npos || why.find("No input file") != std::string::npos;
	return unseen ? "; it sees another file system (chroot), or open_basedir keeps it from " +
			std::filesystem::temp_directory_path().string()
				  : "";
}

void probe_failed(const Checkup &checkup, const char *check, Findings &findings)
{
	for (const PhpCheckup &one : checkup.phps) {
		if (!one.probed || one.probe.trouble.empty()) continue;
		const std::string hint = why_not_run(one);
		add(findings, check, one.title + " did not run the script of this test: " + one.probe.trouble + hint,
			hint.empty() ? "look at its error log"
						 : "quorbit doctor --url http://... asks for a page of yours instead");
	}
}

// Why the report of a request that ran did not come, the likeliest first: text and remedy.
std::pair<std::string, std::string> why_lost(const Checkup &checkup, const PhpCheckup &one)
{
	const std::string root = one.probe.value("zqs.runtime_root"), enabled = one.probe.value("zqs.agent_enabled");
	const auto off = checkup.given.find("zqs.agent_enabled"), urls = checkup.given.find("zqs.urls_captured");
	if (!checkup.refusals.empty()) return {"its account was refused, as told above", "see there"};
	if (one.probe.process && root.empty())
		return {"it does not load the agent", "quorbit setup, and restart it once it is enabled there"};
	if (!root.empty() && root != checkup.runtime_root)
		return {"its zqs.runtime_root is " + root + ", and this quorbit looks at " + checkup.runtime_root,
			"quorbit doctor --root " + root + ", or the same zqs.runtime_root for all"};
	if (enabled == "0" || (enabled.empty() && !one.probe.value("zqs.app_name").empty()))
		return {"the agent is switched off there (zqs.agent_enabled)",
			"remove that setting from " + one.probe.value("ini_file") + ", the scanned folder or the pool"};
	if (off != checkup.given.end() && off->second == "0")
		return {"applications.conf switches the agent off (zqs.agent_enabled)", "remove that line"};
	if (urls != checkup.given.end() && !urls->second.empty())
		return {"zqs.urls_captured lets only " + urls->second + " through",
			"see that it matches your pages: quorbit names --help"};
	if (checkup.memory_safe_percent && checkup.memory_used_percent >= checkup.memory_safe_percent)
		return {"the host's memory is " + std::to_string(checkup.memory_used_percent) +
				"% used, and from zqs.resource.safe = " + std::to_string(checkup.memory_safe_percent) +
				" on agents leave requests alone",
			"free some memory, or raise zqs.resource.safe"};
	if (!one.agent_said.empty())
		return {"the agent's log says: " + one.agent_said, "see " + checkup.host.folder.path + "/php-agent.log"};
	return {"the agent's log gives no reason",
		"set zqs.agent_log_level = DEBUG in php.ini, run this again and read " + checkup.host.folder.path +
			"/php-agent.log"};
}

// Whether findings_of has told why nothing comes of this process: its account reaches neither socket nor log.
bool is_kept_out(const HostFacts &host, int process)
{
	return std::any_of(host.groups.begin(), host.groups.end(), [process](const ProcessGroup &group) {
		return !group.report.reaches &&
			std::any_of(group.processes.begin(), group.processes.end(),
				[process](const PhpProcess &one) { return one.id == process; });
	});
}

void probe_lost(const Checkup &checkup, const char *check, Findings &findings)
{
	const bool is_told = !checkup.host.folder.there || !checkup.host.daemon.answers || !checkup.refusals.empty() ||
		!checkup.store_trouble.empty();
	if (is_told) return;
	for (const PhpCheckup &one : checkup.phps) {
		const bool has_agent = one.php.path.empty() || one.php.enabled;
		if (!one.probed || !has_agent || !one.probe.trouble.empty() || one.arrived) continue;
		if (is_kept_out(checkup.host, one.probe.process)) continue;
		const auto [why, remedy] = why_lost(checkup, one);
		add(findings, check, one.title + " ran a request, and no packet of it came within 2 s: " + why, remedy);
	}
}

struct Check {
	const char *name;
	void (*look)(const Checkup &checkup, const char *check, Findings &findings);
};

// After the checks of the host's state.
constexpr Check checks[] = {
	{"full_disk", full_disk},
	{"clock_off", clock_off},
	{"store_unreadable", store_unreadable},
	{"two_daemons", two_daemons},
	{"account_refused", account_refused},
	{"denied", denied},
	{"ini_not_read", ini_not_read},
	{"php_unfit", php_unfit},
	{"loaded_twice", loaded_twice},
	{"not_enabled", not_enabled},
	{"does_not_load", does_not_load},
	{"xdebug", xdebug},
	{"terminated", terminated},
	{"conf_wrong", conf_wrong},
	{"probe_failed", probe_failed},
	{"probe_lost", probe_lost},
};

} // namespace

std::vector<Finding> checkup_findings(const Checkup &checkup)
{
	Findings findings = findings_of(checkup.host);
	for (const Check &check : checks) check.look(checkup, check.name, findings);
	return findings;
}

bool reports_arrive(const Checkup &checkup)
{
	bool any = false;
	for (const PhpCheckup &one : checkup.phps) {
		if (one.probed && !one.arrived) return false;
		any = any || one.probed;
	}
	return any;
}

} // namespace quorbit
