// Parsing of applications.conf, stamps, and following the file.
#include "facts/applications.h"

#include "base/address.h"
#include "base/config.h"
#include "base/log.h"
#include "base/files.h"
#include "base/number.h"
#include "base/store_url.h"
#include "zqp_board_layout.h"
#include "zqp_setting_table.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace quorbit {

namespace {

// The agent's own table: what it takes from an answer. Other settings are handed out all the same: an agent passes over
// what it does not know.
bool agents_know(std::string_view key)
{
	return std::any_of(
		zq_setting_table.begin(), zq_setting_table.end(), [key](const auto &row) { return row.key == key; });
}

std::string_view trim(std::string_view text)
{
	size_t begin = text.find_first_not_of(" \t\r");
	if (begin == std::string_view::npos) return {};
	return text.substr(begin, text.find_last_not_of(" \t\r") + 1 - begin);
}

// What is wrong with a text; "" for nothing. None repeats the text, which may have a password.
std::string url_fault(std::string_view text)
{
	try {
		if (!text.empty()) parse_store_url(text);
		return "";
	} catch (const std::runtime_error &failure) {
		return failure.what();
	}
}

// Metrics name applications and actions: they are for this host alone.
std::string listen_fault(std::string_view text)
{
	if (text.empty()) return "";
	try {
		const ListenAddress address = parse_listen(text);
		if (!address.unix_socket() && address.loopback()) return "";
	} catch (const std::runtime_error &) { // speaks of an option
	}
	return "expected an address of loopback and a port: 127.0.0.1:7181";
}

std::string path_fault(std::string_view text)
{
	return text.empty() || text.starts_with('/') ? "" : "expected a path from the root";
}

std::string name_fault(std::string_view text)
{
	auto fits = [](char c) { return isalnum(static_cast<unsigned char>(c)) || strchr("._-", c); };
	return text.size() <= 255 && std::all_of(text.begin(), text.end(), fits)
		? ""
		: "expected a name of letters, digits, dots, hyphens and underscores";
}

std::string otlp_url_fault(std::string_view text)
{
	const bool known = text.starts_with("http://") || text.starts_with("https://");
	return text.empty() || (known && text.find_first_of(" ?#@") == std::string_view::npos)
		? ""
		: "expected http://host:4318 or https://..., without an account";
}

std::string otlp_headers_fault(std::string_view text)
{
	const bool fits = text.empty() || (text.find('=') != std::string_view::npos && !text.starts_with('='));
	return fits ? "" : "expected name=value, with commas between several";
}

std::string otlp_format_fault(std::string_view text)
{
	return text == "protobuf" || text == "json" ? "" : "expected protobuf or json";
}

std::string otlp_send_fault(std::string_view text)
{
	int64_t number = 0;
	const bool one_in = text.starts_with("1/") && parse_number(text.substr(2), number) && number > 0;
	return text == "all" || text == "traced" || one_in ? "" : "expected all, traced or 1/100";
}

std::string yes_or_no_fault(std::string_view text)
{
	return text == "yes" || text == "no" ? "" : "expected yes or no";
}

// The daemon's own settings that are texts.
struct OwnText {
	const char *key;
	std::string Applications::*field;
	std::string (*fault)(std::string_view value);
};
constexpr OwnText own_texts[] = {
	{"store_url", &Applications::store_url, url_fault},
	{"store_password_file", &Applications::store_password_file, path_fault},
	{"host_name", &Applications::host_name, name_fault},
	{"cluster", &Applications::cluster, name_fault},
	{"otlp_url", &Applications::otlp_url, otlp_url_fault},
	{"otlp_headers", &Applications::otlp_headers, otlp_headers_fault},
	{"otlp_format", &Applications::otlp_format, otlp_format_fault},
	{"otlp_send", &Applications::otlp_send, otlp_send_fault},
	{"otlp_functions", &Applications::otlp_functions, yes_or_no_fault},
	{"metrics_listen", &Applications::metrics_listen, listen_fault},
};

class Parser {
public:
	Applications applications;

	// After the last line.
	void end()
	{
		if (untold_) applications.problems.push_back("and " + std::to_string(untold_) + " more lines are wrong");
	}

	void line(int number, std::string_view text)
	{
		number_ = number;
		bool indented = text.starts_with(' ') || text.starts_with('\t');
		std::string_view content = trim(text);
		if (indented && value_) {
			// An indented line continues the value above it: scripts and naming rules may be written over several
			// lines.
			if (!value_->empty()) *value_ += '\n';
			*value_ += content;
			return;
		}
		if (content.empty() || content[0] == '#' || content[0] == ';') return;
		value_ = nullptr;
		if (content[0] == '[')
			section(content);
		else
			setting(content);
	}

private:
	void problem(const std::string &what)
	{
		constexpr size_t most_told = 10;
		if (applications.problems.size() < most_told)
			applications.problems.push_back("line " + std::to_string(number_) + ": " + what);
		else
			untold_++;
	}

	void section(std::string_view content)
	{
		size_t end = content.rfind(']');
		in_unknown_section_ = end == std::string_view::npos;
		if (in_unknown_section_) return problem("a section needs a closing bracket; its settings are skipped");
		section_ = &applications.sections[std::string(trim(content.substr(1, end - 1)))];
	}

	void setting(std::string_view content)
	{
		size_t equals = content.find('=');
		if (equals == std::string_view::npos) return problem("neither a section nor a setting");
		std::string_view key = trim(content.substr(0, equals)), value = trim(content.substr(equals + 1));
		if (in_unknown_section_) return;
		if (!section_) return own_setting(key, value);
		if (!agents_know(key)) {
			problem("agents do not know the setting \"" + std::string(key) + "\"");
		}
		value_ = &((*section_)[std::string(key)] = value);
	}

	// Before the first section: the daemon's own.
	void own_setting(std::string_view key, std::string_view value)
	{
		struct Own {
			const char *key, *unit;
			int64_t Applications::*field;
			int64_t most;
		};
		constexpr Own own_settings[] = {
			{"store_mb", "megabytes", &Applications::store_mb, 1000000},
			{"profile_mb", "megabytes", &Applications::profile_mb, 1000000},
			{"sums_mb", "megabytes", &Applications::sums_mb, 1000000},
			{"minute_days", "days", &Applications::minute_days, 3650},
			{"hour_days", "days", &Applications::hour_days, 3650},
			{"store_seconds", "seconds", &Applications::store_seconds, 3600},
			{"otlp_seconds", "seconds", &Applications::otlp_seconds, 3600},
			{"board_slots", "slots", &Applications::board_slots, ZQ_BOARD_MOST_SLOTS},
		};
		for (const OwnText &row : own_texts) {
			if (key == row.key) return own_text(row, value);
		}
		auto own = std::find_if(
			std::begin(own_settings), std::end(own_settings), [key](const Own &row) { return key == row.key; });
		if (own == std::end(own_settings))
			return problem("\"" + std::string(key) + "\" belongs in a section, [*] for all applications");
		int64_t number = 0;
		if (!parse_number(value, number) || number < 1 || number > own->most)
			return problem(std::string(key) + " must be a number of " + own->unit);
		applications.*(own->field) = number;
	}

	void own_text(const OwnText &row, std::string_view value)
	{
		const std::string fault = row.fault(value);
		if (!fault.empty()) return problem(std::string(row.key) + ": " + fault);
		applications.*(row.field) = value;
	}

	int number_ = 0;
	int64_t untold_ = 0;
	Settings *section_ = nullptr;
	std::string *value_ = nullptr;
	bool in_unknown_section_ = false;
};

} // namespace

Applications parse_applications(std::string_view text)
{
	Parser parser;
	constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
	if (text.starts_with(byte_order_mark)) text.remove_prefix(byte_order_mark.size());
	for (int number = 1; !text.empty(); number++) {
		std::string_view line = text.substr(0, text.find('\n'));
		text.remove_prefix(std::min(text.size(), line.size() + 1));
		parser.line(number, line);
	}
	parser.end();
	return std::move(parser.applications);
}

Settings settings_of(const Applications &applications, std::string_view application)
{
	Settings settings = {{"zqs.details", "1"}, {"zqs.radar", "1"}};
	for (std::string_view section : {std::string_view("*"), application}) {
		auto found = applications.sections.find(section);
		if (found == applications.sections.end()) continue;
		for (const auto &[key, value] : found->second) settings[key] = value;
	}
	return settings;
}

uint64_t stamp_of(const Settings &settings)
{
	// FNV-1a over keys and values with their terminators, so that text cannot move between them unnoticed.
	uint64_t hash = 14695981039346656037u;
	auto mix = [&hash](const std::string &text) {
		for (size_t i = 0; i <= text.size(); i++)
			hash = (hash ^ static_cast<unsigned char>(text.c_str()[i])) * 1099511628211u;
	};
	for (const auto &[key, value] : settings) {
		mix(key);
		mix(value);
	}
	return hash ? hash : 1; // 0 is an agent without configuration
}

const Applications &ApplicationsFile::current()
{
	struct stat now = {};
	bool exists = stat(path_.c_str(), &now) == 0;
	if (!exists || !S_ISREG(now.st_mode)) {
		if (!exists && errno == ENOENT) applications_ = {};
		seen_ = {};
		return applications_;
	}
	bool same = now.st_ino == seen_.st_ino && now.st_dev == seen_.st_dev && now.st_size == seen_.st_size &&
		now.st_mtim.tv_sec == seen_.st_mtim.tv_sec && now.st_mtim.tv_nsec == seen_.st_mtim.tv_nsec &&
		now.st_ctim.tv_sec == seen_.st_ctim.tv_sec && now.st_ctim.tv_nsec == seen_.st_ctim.tv_nsec;
	if (same) return applications_;
	seen_ = now;
	reload();
	return applications_;
}

void ApplicationsFile::reload()
{
	try {
		applications_ = parse_applications(read_file(path_, true));
	} catch (const std::runtime_error &failure) {
		auto error = dynamic_cast<const std::system_error *>(&failure);
		bool later = error && (error->code().value() == EMFILE || error->code().value() == ENFILE);
		if (later) seen_ = {};
		if (!later || !std::exchange(told_to_wait_, true))
			log_message(LogLevel::warning, std::string("settings stay as they were: ") + failure.what());
		return;
	}
	told_to_wait_ = false;
	log_message(LogLevel::info,
		"settings of " + std::to_string(applications_.sections.size()) + " sections read from " + path_);
	for (const std::string &problem : applications_.problems) log_message(LogLevel::warning, path_ + " " + problem);
}

} // namespace quorbit
