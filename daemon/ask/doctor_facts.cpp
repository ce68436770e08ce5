// Gathering for the doctor, in the order of Checkup's fields; and what the store and applications.conf say.
#include "ask/doctor_parts.h"
#include "ask/host_state.h"
#include "base/clock.h"
#include "base/files.h"
#include "base/number.h"
#include "base/version.h"
#include "facts/applications.h"
#include "host/host_sample.h"
#include "store/layout.h"
#include "store/open_reader.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace quorbit {

namespace {

// The stamp of an action that was received after that moment; 0 for none.
int64_t stamp_after(Reader &store, int64_t wall_ms)
{
	ActionQuestion later;
	later.filter.range.from_ms = wall_ms;
	later.most = 1;
	const auto rows = store.actions(later);
	return rows.empty() ? 0 : rows[0].received_ms;
}

// --- applications.conf

void read_conf(const DaemonConfig &config, const std::vector<ApplicationRow> &known, Checkup &checkup)
{
	std::string text;
	try {
		text = read_file(config.applications_file(), true);
	} catch (const std::system_error &failure) {
		if (failure.code() != std::errc::no_such_file_or_directory) checkup.conf_problems.push_back(failure.what());
		return;
	} catch (const std::exception &failure) {
		checkup.conf_problems.push_back(failure.what());
		return;
	}
	const Applications applications = parse_applications(text);
	checkup.conf_problems = applications.problems;
	for (const auto &[name, settings] : applications.sections) {
		const bool used = name == "*" ||
			std::any_of(known.begin(), known.end(), [&name = name](const auto &row) { return row.name == name; });
		if (!used) checkup.unused_sections.push_back(name);
	}
}

// What the applications of the probes are given that keeps requests out.
void add_given(const std::vector<ApplicationRow> &known, Checkup &checkup)
{
	std::set<std::string> names;
	for (const PhpCheckup &one : checkup.phps) names.insert(one.probe.value("zqs.app_name"));
	checkup.memory_safe_percent = 95; // ext/zqp_io_config.cpp
	for (const ApplicationRow &row : known) {
		if (!names.contains(row.name)) continue;
		for (const auto &[key, value] : parse_given(row.given)) {
			if (key == "zqs.urls_captured" || key == "zqs.agent_enabled") checkup.given[key] = value;
			if (key == "zqs.resource.safe") parse_number(value, checkup.memory_safe_percent);
			if (key == "zqs.resource.used") parse_number(value, checkup.memory_used_percent);
			if (key == "zqs.resource.enabled" && value == "0") checkup.memory_safe_percent = 0;
		}
	}
	const HostSample sample = HostSampler().take();
	if (sample.memory_bytes <= 0) return;
	const auto measured = static_cast<int>((sample.memory_bytes - sample.available_bytes) * 100 / sample.memory_bytes);
	checkup.memory_used_percent = std::max(checkup.memory_used_percent, measured);
}

} // namespace

DoctorStore open_doctor_store(const DaemonConfig &config)
{
	DoctorStore store;
	if (!has_store(config)) return store;
	try {
		store.reader = open_reader(config);
		store.reader->position(); // reads it
	} catch (const LayoutError &other) {
		store.reader.reset();
		if (!other.remedy.empty()) store = {nullptr, other.trouble, other.remedy};
	} catch (const std::exception &failure) {
		store = {nullptr, failure.what(), ""};
	}
	return store;
}

Checkup doctor_facts(const DaemonConfig &config, const DoctorOptions &options)
{
	Checkup checkup;
	checkup.product_version = product_version;
	checkup.runtime_root = std::filesystem::path(config.folder()).parent_path().parent_path();
	checkup.phps = check_phps(config, options);
	DoctorStore store = open_doctor_store(config);
	std::vector<ApplicationRow> known;
	if (store.reader) {
		known = store.reader->applications();
		checkup.future_ms = stamp_after(*store.reader, wall_clock_ms() + 5000);
	}
	checkup.store_trouble = store.trouble;
	checkup.store_remedy = store.remedy;
	checkup.host = host_state(config, store.reader.get(), known, options.proc);
	checkup.strays = stray_ini_files(checkup.phps);
	checkup.daemons = daemons_on_host(options.proc);
	checkup.refusals = account_refusals(checkup.host, config);
	checkup.free_bytes = free_bytes_in(config.folder());
	read_conf(config, known, checkup);
	checkup.terminate_timeouts = terminate_timeouts(checkup.host);
	checkup.denials = policy_denials(config.folder());
	add_given(known, checkup);
	return checkup;
}

} // namespace quorbit
