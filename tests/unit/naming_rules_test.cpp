#include "zqp_naming_rules.h"

#include <cstdlib>
#include <map>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

using Values = std::map<std::string, std::string>;

struct Request {
	const char *url = "/user/login/now?act=in";
	const char *method = "POST";
	std::map<zq_naming_source, Values> values = {
		{ZQ_FROM_QUERY, {{"act", "in"}, {"b", "2"}}},
		{ZQ_FROM_HEADER, {{"X-Client", "Android 9"}}},
		{ZQ_FROM_FORM, {{"id", "7"}}},
		{ZQ_FROM_COOKIE, {{"lang", "de"}}},
	};
};

const char *lookup(void *context, zq_naming_source source, const char *name)
{
	const Values &values = ((Request *)context)->values[source];
	auto found = values.find(name);
	return found == values.end() ? nullptr : found->second.c_str();
}

/* The name, or "-" for none. */
std::string name_of(const std::string &rules, Request request = {})
{
	zq_naming_request seen = {request.url, request.method, lookup, &request};
	const char *invalid_at = nullptr;
	char *name = get_name_by_rules(rules.c_str(), &seen, &invalid_at);
	std::string result = name ? name : "-";
	free(name);
	return result;
}

std::string rule(const std::string &match, const std::string &split = "")
{
	return "[{\"name\":\"R\",\"match\":{" + match + "},\"split\":{" + split + "}}]";
}

const char any[] = R"("method":0,"match":0,"value":"")";

} // namespace

TEST(NamingRules, ComparesMethodAndUrl)
{
	const struct { const char *method; int code, op; std::string value; bool holds; } cases[] = {
		{nullptr, 0, 0, "", true}, {"GET", 1, 0, "", true}, {"POST", 2, 0, "", true}, {"PUT", 3, 0, "", true}, {"DELETE", 4, 0, "", true},
		{"HEAD", 5, 0, "", true}, {"put", 3, 0, "", false}, {"PUTS", 3, 0, "", false}, {nullptr, 1, 0, "", false}, {"GET", 6, 0, "", false},
		{"GET", -1, 0, "", false},
		{"", 0, 1, "/SHOP/Item", true}, {"", 0, 1, "/shop/ite", false}, {"", 0, 1, "/shop/items", false},
		{"", 0, 2, "/Shop", true}, {"", 0, 2, "/shop/item/longer", false}, {"", 0, 2, "shop", false},
		{"", 0, 3, "/ITEM", true}, {"", 0, 3, "x/shop/item", false}, {"", 0, 3, "shop", false},
		{"", 0, 4, "P/I", true}, {"", 0, 4, "", true}, {"", 0, 4, "cart", false},
		{"", 0, 5, "^/shop/[a-z]+$", true}, {"", 0, 5, "SHOP", true}, {"", 0, 5, "(", false}, {"", 0, 5, "^item", false},
		{"", 0, 5, std::string(30000, '('), false}, {"", 0, 5, "((((a{200}){200}){200}){200})", false},
		{"", 0, 6, "/shop/item", false}, {"", 0, -1, "/shop/item", false},
	};
	for (const auto &c : cases) {
		std::string match = "\"method\":" + std::to_string(c.code) + ",\"match\":" + std::to_string(c.op) + ",\"value\":\"" + c.value + "\"";
		EXPECT_EQ(name_of(rule(match), {"/shop/item", c.method}), c.holds ? "WebAction/R/" : "-") << match.substr(0, 80);
	}
	EXPECT_EQ(name_of(rule(any), {nullptr}), "-");
}

TEST(NamingRules, RulesAreReadByPositionAndAllConditionsMustHold)
{
	const std::string hit = R"("name":"R","match":{"method":0,"match":0,"value":""},"split":{})";
	const auto with_params = [](const std::string &params) { return rule(std::string(any) + ",\"params\":[" + params + "]"); };
	const std::pair<std::string, bool> cases[] = {
		{"[{" + hit + ",\"more\":1}]", true}, {"[7,[],null,{},{" + hit + "}]", true}, {"{" + hit + "}", false}, {"[{\"more\":1," + hit + "}]", false},
		{R"([{"name":"R","split":{},"match":{"method":0,"match":0,"value":""}}])", false},
		{rule(R"("match":0,"method":0,"value":"")"), false}, {rule(std::string(any) + R"(,"other":1)"), false},
		{with_params(R"({"type":1,"name":"act","match":1,"value":"IN"},{"type":1,"name":"b","match":1,"value":"2"})"), true},
		{with_params(R"({"type":1,"name":"act","match":1,"value":"in"},{"type":1,"name":"b","match":1,"value":"3"})"), false},
		{with_params(R"({"type":1,"name":"absent","match":0,"value":""})"), true},
		{with_params(R"({"type":1,"name":"absent","match":4,"value":""})"), false},
		{with_params(R"({"type":1,"name":"id","match":1,"value":"7"})"), false}, /* a form field, no query parameter */
		{with_params(R"({"type":4,"name":"lang","match":0,"value":""})"), false}, {with_params(R"({"type":0,"name":"act","match":0,"value":""})"), false},
	};
	for (const auto &[rules, holds] : cases) {
		EXPECT_EQ(name_of(rules), holds ? "WebAction/R/" : "-") << rules;
	}
}

TEST(NamingRules, ComposesTheNameFromTheRequest)
{
	const std::pair<const char *, const char *> cases[] = {
		{R"("uri":"2","urlParams":"act","method":true)", "user%2Flogin?act=in (POST)"},
		{R"("uri":"-1")", "now?act=in"}, {R"("uri":"-9")", "user%2Flogin%2Fnow?act=in"}, {R"("uri":"0")", ""}, {R"("uri":"")", ""},
		{R"("uri":"9")", "user%2Flogin%2Fnow?act=in"}, {R"("uri":"3,1")", "now?act=in%2Fuser"}, {R"("uri":"2,,2,0,-1,4,x")", "login%2Flogin"},
		{R"("uri":"99999999999999999999")", "user%2Flogin%2Fnow?act=in"}, {R"("uri":"-99999999999999999999")", "user%2Flogin%2Fnow?act=in"},
		{R"("cookieParams":"lang","bodyParams":"id","headerParams":"X-Client","urlParams":"b,,a,act")",
	     "?b=2&act=in&X-Client=Android 9&id=7&lang=de"},
		{R"("method":false,"uri":1,"urlParams":["act"],"other":"x")", ""},
		{R"("method":"true","uri":"1")", "user"},
	};
	for (const auto &[split, name] : cases) {
		EXPECT_EQ(name_of(rule(any, split)), std::string("WebAction/R/") + name) << split;
	}
	EXPECT_EQ(name_of(rule(any, R"("uri":"1","method":true)"), {"", nullptr}), "WebAction/R/");

	/* whatever a visitor sends: 256 bytes of each value, 4,096 of the name */
	Request flood = {"/a"};
	std::string names, name = "WebAction/R/", separator = "?";
	for (int i = 10; i < 30; i++) {
		names += "f" + std::to_string(i) + ",";
		flood.values[ZQ_FROM_FORM]["f" + std::to_string(i)] = std::string(256, 'x') + "y";
		name += std::exchange(separator, "&") + "f" + std::to_string(i) + "=" + std::string(256, 'x');
	}
	EXPECT_EQ(name_of(rule(any, "\"bodyParams\":\"" + names + "\""), flood), name.substr(0, 4096));
}
