// Naming rules on requests: any text as rules.
// Input: the URL, the method and "name=value&...", each in a line, then the rules.
// sources: ext/zqp_naming_rules.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp
// libraries: libcjson
#include <cJSON.h>

#include "require.h"
#include "zqp_naming_rules.h"

namespace {

struct Request {
	CText url, method;
	Params params;
	zq_naming_request seen;
};

const char *param_value(void *context, zq_naming_source, const char *name)
{
	auto &params = ((Request *)context)->params;
	auto found = params.find(name);
	return found == params.end() ? NULL : found->second.c_str();
}

std::string name_by(const char *rules, Request *request, const char **invalid_at)
{
	char *name = get_name_by_rules(rules, &request->seen, invalid_at);
	std::string text = name ? name : "";
	free(name);
	return text;
}

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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string_view input((const char *)data, size);
	CText url(take_line(&input)), method(take_line(&input)), params(take_line(&input));
	Request request = {std::move(url), std::move(method), read_params((char *)params), {}};
	request.seen = {request.url, *request.method ? (char *)request.method : NULL, param_value, &request};
	CText rules(input);
	name_by_any(rules, &request);
	return 0;
}
