// Naming sample requests with the agent's code, and counting the names.
#include "ask/naming.h"

#include "base/text.h"
#include "facts/path_text.h"
#include "zqp_json_text.h"
#include "zqp_naming_uri.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <unordered_map>

namespace quorbit {

namespace {

// ---- the agent's seams

struct NameBuffer {
	std::string text;
};
void zq_append(NameBuffer *buffer, const char *text, size_t len)
{
	buffer->text.append(text, len);
}
std::string_view zq_view(const NameBuffer *buffer)
{
	return buffer->text;
}
void zq_release(NameBuffer *) {}

const std::optional<std::string> *find_parameter(
	const SampleRequest &request, zq_naming_source source, std::string_view name)
{
	const SampleRequest::Parameters *values = source == ZQ_FROM_QUERY ? &request.query : nullptr;
	std::string key(name);
	if (source == ZQ_FROM_HEADER) {
		values = &request.headers;
		key = "HTTP_" + key.substr(0, 122); // as long as the agent lets a server key be
		for (char &ch : key) ch = isalnum(static_cast<unsigned char>(ch)) ? zq_ascii_upper(ch) : '_';
	}
	if (!values) return nullptr; // forms and cookies are in no log
	auto found = values->find(key);
	return found == values->end() ? nullptr : &found->second;
}

struct CapturedParameters {
	const SampleRequest &request;

	const std::optional<std::string> *find(zq_naming_source source, std::string_view name) const
	{
		return find_parameter(request, source, name);
	}
	void append(NameBuffer *buffer, const std::optional<std::string> *value) const
	{
		if (*value) zq_append_json_body(buffer, (*value)->c_str(), strnlen((*value)->c_str(), ZQ_CAPTURED_VALUE_SIZE));
	}
};

const char *rule_value(void *context, zq_naming_source source, const char *name)
{
	const auto *value = find_parameter(*static_cast<const SampleRequest *>(context), source, name);
	return value && *value && !(*value)->empty() ? (*value)->c_str() : nullptr;
}

using MallocedText = std::unique_ptr<char, decltype(&free)>;

const char *by_word(NamedBy by)
{
	return by == NamedBy::rule ? "rule" : by == NamedBy::uri ? "URI" : "script";
}

} // namespace

Namer::Namer(const Settings &settings, std::string script, bool fpm) : script_(std::move(script))
{
	auto setting = [&](const char *key) {
		auto found = settings.find(key);
		return found == settings.end() ? std::string() : found->second;
	};
	rules_ = setting("zqs.naming.rules");
	by_script_uri_ = fpm && zq_str_to_int(setting("zqs.uri_from_request").c_str()) == 0;
	captured_ = setting("zqs.web_action_uri_params_captured");
	filter_ = setting("zqs.urls_captured");
	automatic_ =
		!settings.contains("zqs.auto_action_naming") || zq_str_to_int(setting("zqs.auto_action_naming").c_str()) != 0;
}

// What the agent takes for the request's URI.
std::string Namer::uri_of(const SampleRequest &request) const
{
	if (!by_script_uri_) return request.path;
	const char *path = request.path.c_str();
	if (const char *end = zq_php_pos(path, static_cast<int>(request.path.size()))) return {path, end};
	return "/" + script_.substr(script_.find_last_of('/') + 1);
}

GivenName Namer::name(const SampleRequest &request) const
{
	const std::string uri = uri_of(request);
	zq_naming_request seen = {uri.c_str(), request.method.c_str(), rule_value, const_cast<SampleRequest *>(&request)};
	const char *invalid_at = nullptr;
	MallocedText by_rule(get_name_by_rules(rules_.c_str(), &seen, &invalid_at), free);
	if (by_rule) return {by_rule.get(), NamedBy::rule};
	zq_uri_naming naming = {uri.c_str(), automatic_, script_.c_str(), captured_.empty() ? nullptr : captured_.c_str()};
	NameBuffer name;
	zq_append_uri_name(&name, naming, CapturedParameters{request});
	name.text.resize(std::min(name.text.size(), ZQ_NAME_SIZE));
	return {name.text, name.text.starts_with("WebAction/PHP/") ? NamedBy::script : NamedBy::uri};
}

std::optional<std::string> Namer::invalid_rules() const
{
	SampleRequest any;
	zq_naming_request seen = {"/", "GET", rule_value, &any};
	const char *invalid_at = nullptr;
	MallocedText name(get_name_by_rules(rules_.c_str(), &seen, &invalid_at), free);
	return invalid_at ? std::optional<std::string>(invalid_at) : std::nullopt;
}

std::vector<std::string> Namer::doubtful_patterns() const
{
	std::vector<std::string> told;
	auto look = [](void *lines, const char *pattern) {
		size_t examined = zq_regex_examined_len(pattern);
		if (examined == ZQ_REGEX_MOST_BYTES) return;
		char line[2048];
		examined ? snprintf(line, sizeof line, ZQ_REGEX_BOUNDED, examined, pattern)
				 : snprintf(line, sizeof line, ZQ_REGEX_REFUSED, pattern);
		static_cast<std::vector<std::string> *>(lines)->push_back(line);
	};
	std::istringstream lines(filter_);
	for (std::string pattern; std::getline(lines, pattern);) {
		if (!pattern.empty()) look(&told, pattern.c_str());
	}
	zq_each_rule_pattern(rules_.c_str(), look, &told);
	return told;
}

NameCounts count_names(std::istream &lines, const Namer &namer)
{
	NameCounts counts;
	std::unordered_map<std::string, NameCount> by_name;
	std::string line;
	for (int64_t number = 1; std::getline(lines, line); number++) {
		if (line.ends_with('\r')) line.pop_back();
		if (line.empty() || line[0] == '#') continue;
		auto request = parse_request_line(line);
		if (!request) {
			if (counts.passed_over_count++ < 5) counts.passed_over.push_back(number);
			continue;
		}
		GivenName given = namer.name(*request);
		by_name.try_emplace(given.name, NameCount{given.name, given.by, 0}).first->second.requests++;
		counts.requests++;
	}
	for (auto &[name, count] : by_name) counts.names.push_back(std::move(count));
	std::sort(counts.names.begin(), counts.names.end(), [](const NameCount &a, const NameCount &b) {
		return a.requests != b.requests ? a.requests > b.requests : a.name < b.name;
	});
	return counts;
}

static bool is_page(std::string_view path)
{
	const std::string_view file = path.substr(path.rfind('/') + 1);
	const size_t dot = file.rfind('.');
	return dot == std::string_view::npos || file.substr(dot).starts_with(".php") ||
		file.substr(dot).starts_with(".htm");
}

std::map<std::string, int64_t> count_missing(std::istream &lines, const std::set<std::string> &seen)
{
	std::map<std::string, int64_t> missing;
	for (std::string line; std::getline(lines, line);) {
		auto request = parse_request_line(line);
		if (!request || !is_page(request->path)) continue;
		std::string path = mask_path(request->path);
		if (!seen.contains(path)) missing[std::move(path)]++;
	}
	return missing;
}

std::string names_text(const NameCounts &counts, size_t most, size_t width, const std::string &script)
{
	std::string out =
		"Requests: " + std::to_string(counts.requests) + ", names: " + std::to_string(counts.names.size()) + "\n\n";
	std::vector<std::vector<std::string>> rows;
	bool by_script = false;
	for (const NameCount &count : counts.names) {
		by_script = by_script || count.by == NamedBy::script;
		if (rows.size() == most) continue;
		rows.push_back({std::to_string(count.requests), percent(count.requests, counts.requests), by_word(count.by),
			printable(count.name)});
	}
	if (!rows.empty())
		out += table(
			{{"requests", true}, {"share", true}, {"named by"}, {"name", false, true}}, rows, width ? width : SIZE_MAX);
	if (rows.size() < counts.names.size())
		out += "and " + std::to_string(counts.names.size() - rows.size()) + " more\n";
	out +=
		"\nWhat a framework calls its actions cannot be known here: requests that it dispatches get its names, unless "
		"a rule has named them.\n";
	if (by_script)
		out += "A URI without \".php\" is named after the file that the server runs; " + printable(script) +
			" was assumed (--script).\n";
	if (counts.passed_over_count) {
		bool one = counts.passed_over_count == 1;
		out += "Skipped " + std::to_string(counts.passed_over_count) +
			(one ? " line that is not a request:" : " lines that are not requests, the first:");
		for (int64_t number : counts.passed_over) out += " " + std::to_string(number);
		out += "\n";
	}
	return out;
}

} // namespace quorbit
