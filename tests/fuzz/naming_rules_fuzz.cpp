// Naming rules on requests: any text as rules, and rules made of the input whose outcome is known from a plain description.
// Input: the URL, the method, "name=value&..." and a number, each in a line, then the rules.
// sources: ext/zqp_naming_rules.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp
// libraries: libcjson
#include <cJSON.h>
#include <map>
#include <vector>

#include "require.h"
#include "zqp_naming_rules.h"
#include "zqp_text.h"

namespace {

struct Request {
	CText url, method;
	std::map<std::string, std::string> params;
	zq_naming_request seen;
};

const char *param_value(void *context, zq_naming_source, const char *name)
{
	auto &params = ((Request *)context)->params;
	auto found = params.find(name);
	return found == params.end() ? NULL : found->second.c_str();
}

void read_params(std::string_view text, std::map<std::string, std::string> *params)
{
	while (!text.empty()) {
		std::string_view pair = text.substr(0, text.find('&'));
		text.remove_prefix(std::min(text.size(), pair.size() + 1));
		size_t equals = std::min(pair.find('='), pair.size());
		CText name(pair.substr(0, equals)), value(pair.substr(std::min(equals + 1, pair.size())));
		if (*value) {
			(*params)[name.str()] = value.str();
		}
	}
}

std::string name_by(const char *rules, Request *request, const char **invalid_at)
{
	char *name = get_name_by_rules(rules, &request->seen, invalid_at);
	std::string text = name ? name : "";
	free(name);
	return text;
}

// ---- any rules

void name_by_any(const char *rules, Request *request)
{
	const char *invalid_at = NULL;
	std::string name = name_by(rules, request, &invalid_at);
	if (invalid_at) {
		REQUIRE(name.empty() && invalid_at >= rules && invalid_at <= rules + strlen(rules));
		return;
	}
	cJSON *root = name.empty() ? NULL : cJSON_Parse(rules);
	bool found = false;
	for (cJSON *rule = root ? root->child : NULL; rule && !found; rule = rule->next) {
		const char *rule_name = rule->child ? rule->child->valuestring : NULL;
		found = rule_name && name.starts_with("WebAction/" + std::string(rule_name) + "/");
	}
	cJSON_Delete(root);
	REQUIRE(found || name.empty());
}

// ---- rules with a known outcome

std::string lowered(std::string text)
{
	for (char &ch : text) {
		ch = zq_ascii_lower(ch);
	}
	return text;
}

bool holds(int match, const std::string &subject, const std::string &value)
{
	switch (match) {
	case 0: return true;
	case 1: return subject == value;
	case 2: return subject.starts_with(value);
	case 3: return subject.ends_with(value);
	default: return subject.find(value) != std::string::npos;
	}
}

std::string joined_segments(const std::string &url, long number)
{
	std::vector<std::string> segments;
	for (size_t at = 0; (at = url.find_first_not_of('/', at)) != std::string::npos;) {
		size_t end = std::min(url.find('/', at), url.size());
		segments.push_back(url.substr(at, end - at));
		at = end;
	}
	long count = (long)segments.size(), first = number > 0 ? 0 : std::max(0L, count + number), last = number > 0 ? number : count;
	std::string joined;
	for (long i = first; i < std::min(count, last); i++) {
		joined += (i > first ? "%2F" : "") + segments[i];
	}
	return joined;
}

void name_by_known(int match, long number, const char *value, Request *request)
{
	cJSON *root = cJSON_CreateArray(), *rule = cJSON_CreateObject(), *condition = cJSON_CreateObject(), *split = cJSON_CreateObject();
	cJSON_AddItemToArray(root, rule);
	cJSON_AddStringToObject(rule, "name", "R");
	cJSON_AddItemToObject(rule, "match", condition);
	cJSON_AddNumberToObject(condition, "method", 0);
	cJSON_AddNumberToObject(condition, "match", match);
	cJSON_AddStringToObject(condition, "value", value);
	cJSON_AddItemToObject(rule, "split", split);
	cJSON_AddStringToObject(split, "uri", std::to_string(number).c_str());
	char *rules = cJSON_PrintUnformatted(root);
	cJSON_Delete(root);

	const char *invalid_at = NULL;
	std::string url = request->url.str(), name = name_by(rules, request, &invalid_at);
	REQUIRE(!invalid_at);
	bool expected = holds(match, lowered(url), lowered(value));
	REQUIRE(name == (expected ? "WebAction/R/" + joined_segments(url, number) : ""));
	cJSON_free(rules);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string_view input((const char *)data, size);
	CText url(take_line(&input)), method(take_line(&input)), params(take_line(&input));
	long number = strtol(take_line(&input).c_str(), NULL, 10);
	Request request = {std::move(url), std::move(method), {}, {}};
	read_params((char *)params, &request.params);
	request.seen = {request.url, *request.method ? (char *)request.method : NULL, param_value, &request};
	CText rules(input);
	name_by_any(rules, &request);
	if (cJSON *value = cJSON_CreateString(params)) {
		cJSON_Delete(value);
		name_by_known((int)(size % 5), number % 1000, params, &request);
	}
	return 0;
}
