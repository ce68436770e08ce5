// Names made of paths and URLs, and the parameters that go into them: no slash and no number is left in a name.
// Input: the path, the list of captured parameters and "name=value&...", each in a line, then the script's file name.
// sources: ext/zqp_helper_string.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp tests/fuzz/engine.cpp
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

// A path becomes one part of a name, with one star for each number.
void check_part(const std::string &part)
{
	REQUIRE(part.find('/') == std::string::npos);
	for (size_t i = 1; i < part.size(); i++) {
		REQUIRE(!isdigit((unsigned char)part[i]) || !isdigit((unsigned char)part[i - 1]));
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string_view input((const char *)data, size);
	CText uri(take_line(&input)), captured(take_line(&input)), given(take_line(&input)), script(input);
	Params params = read_params((char *)given);
	smart_str path = {NULL, 0, 0}, web = {NULL, 0, 0};
	zq_append_clean_path(&path, (char *)uri);
	check_part(taken(&path));
	zq_append_web(&web, uri);
	REQUIRE(taken(&web).find('/') == std::string::npos);
	for (int automatic : {0, 1}) {
		smart_str buf = {NULL, 0, 0};
		zq_append_uri_name(&buf, {uri, automatic, script, captured}, CapturedParams{&params});
		std::string name = taken(&buf);
		size_t kind = name.find('/', strlen("WebAction/"));
		REQUIRE(name.starts_with("WebAction/") && kind != std::string::npos);
		check_part(name.substr(kind + 1));
	}
	return 0;
}
