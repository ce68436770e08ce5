// quorbit doctor: everything between a request and its action, looked at in order and tried with a request.
#include "ask/command.h"

#include "ask/doctor_facts.h"
#include "base/clock.h"
#include "base/json_text.h"
#include "print/output.h"
#include "print/report.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <stdexcept>

namespace quorbit {

namespace {

struct DoctorArguments : DoctorOptions {
	bool json = false;
	std::string report;
};

enum ExitStatus { clean = 0, has_findings = 1, broken = 2 };

int status_of(const Checkup &checkup, const std::vector<Finding> &findings)
{
	if (findings.empty()) return clean;
	return reports_arrive(checkup) ? has_findings : broken;
}

std::string probe_text(const PhpCheckup &one)
{
	const std::string name = printable(one.title);
	if (one.arrived) return "ok     " + name + ": a request ran, and its action arrived\n";
	if (one.probed) return "";
	if (one.php.enabled && one.php.server == PhpServer::fpm)
		return "-      " + name + " was not tried: name its socket or port with --fpm\n";
	if (one.php.enabled && one.php.server == PhpServer::apache)
		return "-      " + name + " was not tried: name a page of it with --url\n";
	if (one.php.enabled) return "";
	return "-      " + name + (one.php.trouble.empty() ? " does not load the agent\n" : " cannot load the agent\n");
}

std::string answer_text(const Checkup &checkup, const std::vector<Finding> &findings, bool coloured)
{
	std::string text =
		"ok     quorbit " + checkup.product_version + ", runtime root " + printable(checkup.runtime_root) + "\n";
	const DaemonFacts &daemon = checkup.host.daemon;
	if (daemon.answers)
		text += "ok     the daemon answers" +
			(daemon.process ? ", process " + std::to_string(daemon.process) : std::string()) + "\n";
	for (const PhpCheckup &one : checkup.phps) text += probe_text(one);
	return text + "\n" + (findings.empty() ? "Nothing is amiss.\n" : findings_text(findings, coloured));
}

// Whether the value of this setting is nobody else's business.
bool is_secret(const std::string &setting)
{
	for (const char *word : {"key", "secret", "password", "proxy", "cert"}) {
		if (setting.find(word) != std::string::npos) return true;
	}
	return false;
}

Json told_json(const ProbeAnswer &probe)
{
	Json told = Json::object();
	for (const auto &[name, value] : probe.told) told[name] = is_secret(name) && !value.empty() ? "(not shown)" : value;
	return told;
}

Json answer_json(const Checkup &checkup, const std::vector<Finding> &findings)
{
	Json answer = host_json(checkup.host, findings, {});
	answer.erase("applications");
	answer["version"] = checkup.product_version;
	answer["runtime_root"] = checkup.runtime_root;
	answer["arrives"] = reports_arrive(checkup);
	answer["probes"] = Json::array();
	for (const PhpCheckup &one : checkup.phps) {
		answer["probes"].push_back({{"php", one.title}, {"build", one.php.build}, {"enabled", one.php.enabled},
			{"loaded_by", one.loading}, {"tried", one.probed}, {"arrived", one.arrived}, {"trouble", one.probe.trouble},
			{"told", told_json(one.probe)}});
	}
	return answer;
}

void write_report(const std::string &path, const Checkup &checkup, const std::vector<Finding> &findings)
{
	std::ofstream file(path);
	file << "Quorbit " << checkup.product_version << ", " << utc_time(checkup.host.now_ms) << "\n\n"
		 << answer_text(checkup, findings, false) << "\n"
		 << processes_text(checkup.host, SIZE_MAX) << "\n"
		 << json_text(answer_json(checkup, findings), true);
	file.close();
	if (!file) throw std::runtime_error("cannot write " + path);
}

int doctor(const DaemonConfig &config, const DoctorArguments &arguments)
{
	progress("trying each PHP");
	const Checkup checkup = doctor_facts(config, arguments);
	progress("");
	const auto findings = checkup_findings(checkup);
	put(arguments.json ? json_text(answer_json(checkup, findings), true)
					   : answer_text(checkup, findings, may_colour()));
	if (!arguments.report.empty()) write_report(arguments.report, checkup, findings);
	return status_of(checkup, findings);
}

} // namespace

CommandRun add_doctor(CLI::App &command)
{
	auto arguments = std::make_shared<DoctorArguments>();
	command.add_option("PHP", arguments->phps, "programs to look at; without any, all of this host")->type_name("");
	command.add_option(
		"--fpm", arguments->fpm, "also a request to the FPM that listens there: a socket, a port or host:port");
	command.add_option("--url", arguments->url, "also a request for this page: http://...");
	command.add_flag("--json", arguments->json, "for programs");
	command
		.add_option("--report", arguments->report, "writes all of it to this file, without secrets, for whoever helps")
		->type_name("FILE");
	command.add_option("--proc", arguments->proc, "the /proc to look at: in a container, that of the host")
		->type_name("FOLDER")
		->capture_default_str();
	set_examples(command,
		{{"quorbit doctor", "exit status 0: all is well; 1: something is amiss; 2: requests are not reported"},
			{"quorbit doctor --fpm /run/php/www.sock", "the same, with a request through that pool"},
			{"quorbit doctor --report doctor.txt", "for a bug report"}});
	return [arguments](const DaemonConfig &config) { return doctor(config, *arguments); };
}

} // namespace quorbit
