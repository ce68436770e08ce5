#include "zqp_naming_rules.h"

#include <cstdlib>
#include <map>
#include <string>

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

/* The name, or "-" for none; "! <rest>" for rules that are no JSON. */
std::string name_of(const std::string &rules, Request request = {})
{
	zq_naming_request seen = {request.url, request.method, lookup, &request};
	const char *invalid_at = nullptr;
	char *name = get_name_by_rules(rules.c_str(), &seen, &invalid_at);
	std::string result = name ? name : invalid_at ? std::string("! ") + invalid_at : "-";
	free(name);
	return result;
}

std::string rule(const std::string &match, const std::string &split = "")
{
	return "[{\"name\":\"R\",\"match\":{" + match + "},\"split\":{" + split + "}}]";
}

const char any[] = R"("method":0,"match":0,"value":"")";

} // namespace

TEST(NamingRules, FirstRuleThatHoldsGivesTheName)
{
	const char hit[] = R"({"name":"A","match":{"method":0,"match":4,"value":"LOGIN"},"split":{}})";
	const char other[] = R"({"name":"B","match":{"method":0,"match":0,"value":""},"split":{}})";
	const char miss[] = R"({"name":"C","match":{"method":0,"match":4,"value":"logout"},"split":{}})";
	const auto list = [](std::initializer_list<std::string> rules) {
		std::string text;
		for (const auto &r : rules) {
			text += (text.empty() ? "" : ",") + r;
		}
		return "[" + text + "]";
	};
	const struct { std::string rules, name; } cases[] = {
		{"", "-"},
		{"[]", "-"},
		{"[ ]", "-"},
		{"null", "-"},
		{hit, "-"}, /* an object is no list of rules */
		{list({hit, other}), "WebAction/A/"},
		{list({miss, other, hit}), "WebAction/B/"},
		{list({"7", "[]", "null", "{}", hit}), "WebAction/A/"},
		{"[oops", "! oops"},
		{"[{\"name\"}", "! }"},
		{std::string(20000, '['), "! " + std::string(19000, '[')},
	};
	for (const auto &c : cases) {
		EXPECT_EQ(name_of(c.rules), c.name) << c.rules.substr(0, 80);
	}
}

TEST(NamingRules, RulesAreReadByPosition)
{
	const std::string name = R"("name":"R")", match = std::string("\"match\":{") + any + "}", split = R"("split":{})";
	const std::string rules[] = {
		match + "," + name + "," + split,
		name + "," + split + "," + match,
		name + "," + match,
		name + "," + match + R"(,"split":[])",
		R"("name":1,)" + match + "," + split,
		name + R"(,"match":{"match":0,"method":0,"value":""},)" + split,
		name + R"(,"match":{"method":"0","match":0,"value":""},)" + split,
		name + R"(,"match":{"method":0,"match":0},)" + split,
		name + R"(,"match":{"method":0,"match":0,"value":"","other":1},)" + split,
		name + R"(,"match":{"method":0,"match":0,"value":"","params":{}},)" + split,
	};
	for (const auto &text : rules) {
		EXPECT_EQ(name_of("[{" + text + "}]"), "-") << text;
	}
	EXPECT_EQ(name_of("[{" + name + "," + match + "," + split + ",\"more\":1}]"), "WebAction/R/");
}

TEST(NamingRules, ComparesTheMethodExactly)
{
	const struct { int code; const char *method; bool holds; } cases[] = {
		{0, nullptr, true}, {0, "PATCH", true}, {1, "GET", true}, {2, "POST", true}, {3, "PUT", true}, {4, "DELETE", true},
		{5, "HEAD", true}, {3, "put", false}, {3, "PUTS", false}, {2, "GET", false}, {1, nullptr, false},
		{6, "GET", false}, {-1, "GET", false},
	};
	for (const auto &c : cases) {
		Request request;
		request.method = c.method;
		std::string match = "\"method\":" + std::to_string(c.code) + R"(,"match":0,"value":"")";
		EXPECT_EQ(name_of(rule(match), request), c.holds ? "WebAction/R/" : "-") << c.code;
	}
}

TEST(NamingRules, AppliesTheOperatorsToTheUrl)
{
	const struct { int op; std::string value; bool holds; } cases[] = {
		{0, "", true},
		{1, "/SHOP/Item", true}, {1, "/shop/ite", false}, {1, "/shop/items", false},
		{2, "/Shop", true}, {2, "/shop/item/longer", false}, {2, "shop", false},
		{3, "/ITEM", true}, {3, "x/shop/item", false}, {3, "shop", false},
		{4, "P/I", true}, {4, "", true}, {4, "cart", false},
		{5, "^/shop/[a-z]+$", true}, {5, "SHOP", true}, {5, "(", false}, {5, "^item", false},
		{5, std::string(30000, '('), false}, {5, "((((a{200}){200}){200}){200})", false},
		{5, R"(/(s)hop/i(\\1)?)", false}, {5, R"(/sho[\\1p]/)", true}, {5, R"(^/(.*)(.*)(.*)\\1\\2\\3x$)", false},
		{6, "/shop/item", false}, {-1, "/shop/item", false},
	};
	Request request;
	request.url = "/shop/item";
	for (const auto &c : cases) {
		std::string match = "\"method\":0,\"match\":" + std::to_string(c.op) + ",\"value\":\"" + c.value + "\"";
		EXPECT_EQ(name_of(rule(match), request), c.holds ? "WebAction/R/" : "-") << c.op << " " << c.value.substr(0, 40);
	}
	request.url = nullptr;
	EXPECT_EQ(name_of(rule(any), request), "-");
}

TEST(NamingRules, AllParameterConditionsMustHold)
{
	const struct { const char *params; bool holds; } cases[] = {
		{R"()", true},
		{R"({"type":1,"name":"act","match":1,"value":"IN"})", true},
		{R"({"type":2,"name":"X-Client","match":2,"value":"android"})", true},
		{R"({"type":3,"name":"id","match":5,"value":"^[0-9]$"})", true},
		{R"({"type":1,"name":"absent","match":0,"value":""})", true},
		{R"({"type":1,"name":"absent","match":4,"value":""})", false},
		{R"({"type":1,"name":"id","match":1,"value":"7"})", false}, /* a form field, no query parameter */
		{R"({"type":4,"name":"lang","match":0,"value":""})", false},
		{R"({"type":0,"name":"act","match":0,"value":""})", false},
		{R"({"name":"act","type":1,"match":1,"value":"in"})", false},
		{R"({"type":1,"name":"act","match":1,"value":"in"},{"type":1,"name":"b","match":1,"value":"3"})", false},
		{R"(7)", false},
	};
	for (const auto &c : cases) {
		std::string match = std::string(any) + ",\"params\":[" + c.params + "]";
		EXPECT_EQ(name_of(rule(match)), c.holds ? "WebAction/R/" : "-") << c.params;
	}
}

TEST(NamingRules, ComposesTheNameFromTheRequest)
{
	const struct { const char *split, *name; } cases[] = {
		{R"("uri":"2","urlParams":"act","method":true)", "user%2Flogin?act=in (POST)"},
		{R"()", ""},
		{R"("uri":"-1")", "now?act=in"},
		{R"("uri":"-9")", "user%2Flogin%2Fnow?act=in"},
		{R"("uri":"0")", ""},
		{R"("uri":"")", ""},
		{R"("uri":"all")", ""},
		{R"("uri":"9")", "user%2Flogin%2Fnow?act=in"},
		{R"("uri":"3,1")", "now?act=in%2Fuser"},
		{R"("uri":"2,,2,0,-1,4,x")", "login%2Flogin"},
		{R"("uri":"99999999999999999999")", "user%2Flogin%2Fnow?act=in"},
		{R"("uri":"-99999999999999999999")", "user%2Flogin%2Fnow?act=in"},
		{R"("urlParams":"a,b")", "?b=2"},
		{R"("cookieParams":"lang","bodyParams":"id","headerParams":"X-Client","urlParams":"b,,act")",
	     "?b=2&act=in&X-Client=Android 9&id=7&lang=de"},
		{R"("method":false,"uri":1,"urlParams":["act"],"other":"x")", ""},
		{R"("method":"true","uri":"1")", "user"},
	};
	for (const auto &c : cases) {
		EXPECT_EQ(name_of(rule(any, c.split)), std::string("WebAction/R/") + c.name) << c.split;
	}
	Request bare;
	bare.url = "";
	bare.method = nullptr;
	EXPECT_EQ(name_of(rule(any, R"("uri":"1","method":true)"), bare), "WebAction/R/");
}
