// Names made of paths and URLs, against plain descriptions, and the parameters that go into them.
// Input: the path, the list of captured parameters and "name=value&...", each in a line, then the script's file name.
// sources: ext/zqp_helper_string.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp tests/fuzz/engine.cpp
#include <map>

#include "require.h"
#include "zqp_helper.h"
#include "zqp_json_text.h"
#include "zqp_naming_uri.h"

static std::string_view zq_view(const smart_str *buf)
{
	return buf->c ? std::string_view(buf->c, buf->len) : std::string_view();
}

static void zq_release(smart_str *buf)
{
	zq_buffer_free(buf);
}

namespace {

std::string taken(smart_str *buf)
{
	std::string text = zq_buffer_text(buf);
	REQUIRE(text.size() == buf->len && buf->len < buf->a);
	zq_buffer_free(buf);
	return text;
}

// ---- plain descriptions

bool is_digit(char ch) { return ch >= '0' && ch <= '9'; }

std::string clean_path(const std::string &path)
{
	std::string name;
	bool after_digit = false;
	for (size_t i = 0; i < path.size(); i++) {
		if (path[i] == '/') {
			name += i ? "%2F" : "";
		} else if (after_digit && is_digit(path[i])) {
			name.back() = '*';
		} else {
			name += path[i];
		}
		after_digit = is_digit(path[i]);
	}
	return name.empty() ? "index" : name;
}

std::string web_path(const std::string &url)
{
	std::string name;
	int slashes = 0;
	bool after_digit = false;
	for (size_t i = 0; i < url.size() && url[i] != '?'; i++) {
		bool digit = is_digit(url[i]) && slashes >= 3;
		slashes += url[i] == '/';
		if (digit && after_digit) {
			name.back() = '*';
		} else {
			name += url[i] == '/' ? "%2F" : std::string(1, url[i]);
		}
		after_digit = digit;
	}
	return name;
}

// ---- names with parameters

using Params = std::map<std::string, std::string, std::less<>>;

struct CapturedParams {
	const Params *params;

	const std::string *find(zq_naming_source source, std::string_view name) const
	{
		REQUIRE(!name.empty() && source >= ZQ_FROM_QUERY && source <= ZQ_FROM_FORM);
		auto found = params->find(name);
		return found == params->end() ? NULL : &found->second;
	}
	void append(smart_str *buf, const std::string *value) const { zq_append_json_body(buf, value->c_str(), value->size()); }
};

Params read_params(std::string_view text)
{
	Params params;
	while (!text.empty()) {
		std::string_view pair = text.substr(0, text.find('&'));
		text.remove_prefix(std::min(text.size(), pair.size() + 1));
		size_t equals = std::min(pair.find('='), pair.size());
		params[std::string(pair.substr(0, equals))] = pair.substr(std::min(equals + 1, pair.size()));
	}
	return params;
}

void check_name(const CText &uri, const CText &captured, const CText &script, const Params &params, int automatic)
{
	smart_str buf = {NULL, 0, 0}, suffix = {NULL, 0, 0};
	zq_append_uri_name(&buf, {uri, automatic, script, captured}, CapturedParams{&params});
	std::string name = taken(&buf), path = uri.str();
	size_t php = 0;
	while (php < path.size() && strncasecmp(path.c_str() + php, ".php", 4) != 0) {
		php++;
	}
	if (automatic && (php == path.size() || path.size() < 5)) {
		REQUIRE(name == (*script ? "WebAction/PHP/" + clean_path(script.str()) : "WebAction/URI/" + clean_path(path)));
		return;
	}
	path.resize(automatic ? php + 4 : std::min(path.find('?'), path.size()));
	zq_append_captured(&suffix, captured, path, CapturedParams{&params});
	std::string more = taken(&suffix);
	REQUIRE(more.empty() || more[0] == '?');
	REQUIRE(name == "WebAction/URI/" + clean_path(path + more));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string_view input((const char *)data, size);
	CText uri(take_line(&input)), captured(take_line(&input)), given(take_line(&input)), script(input);
	Params params = read_params((char *)given);
	smart_str path = {NULL, 0, 0}, web = {NULL, 0, 0};
	zq_append_clean_path(&path, (char *)uri);
	REQUIRE(taken(&path) == clean_path(uri.str()));
	zq_append_web(&web, uri);
	REQUIRE(taken(&web) == web_path(uri.str()));
	for (int automatic : {0, 1}) {
		check_name(uri, captured, script, params, automatic);
	}
	return 0;
}
