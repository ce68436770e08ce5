// What comes in with a request or an answer and is cut up by the extension: identity headers, queue stamps, response headers,
// answer data, lists of names and patterns.
// Input: three lines and the rest, the last first taken as what is cut up.
// sources: ext/zqp_helper_string.cpp ext/zqp_helper_clock.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp ext/zqp_io_metric.cpp tests/fuzz/engine.cpp
#include "require.h"
#include "zqp_io.h"

namespace {

// Request memory, read to its end.
void release(char *text)
{
	if (text) {
		read_whole(text);
		efree(text);
	}
}

void check_identity(const CText &given, const CText &param, const CText &other)
{
	release(get_string_param(given, param, *other ? *other : ';'));
	release(get_application_and_instance_id(other));
	is_same_account(other, given);
}

void check_stamps(const CText &given)
{
	REQUIRE(get_block_time(given, 7) >= 0);
	zq_memory_used_of(given);
}

void check_headers(const CText &given)
{
	int content = get_header_content(given);
	REQUIRE(content >= -1 && content <= 1);
	REQUIRE((content == 0) >= (strcasestr(given, "content-length:") != NULL));
	REQUIRE(get_header_status(given) == 0 || strcasestr(given, "http/1."));
}

void check_item(const CText &data, const CText &name)
{
	char *value = NULL;
	int len = -1;
	if (get_transcation_data_item(data, name, &value, &len)) {
		REQUIRE(value > (char *)data && len >= 0 && value + len <= (char *)data + strlen(data));
	}
}

void check_lists(const CText &given, char split)
{
	free_c_array(get_c_array(given, split));
	for (int mode = 0; mode < 6; mode++) {
		char **list = get_str_array(given, mode);
		for (char **at = list; at && *at; at++) {
			REQUIRE(**at);
		}
		free_str_array(list);
	}
}

void check_patterns(const CText &patterns, const CText &url)
{
	int found = in_urls_captured(url, patterns);
	REQUIRE(found == 0 || found == 1);
	REQUIRE(patterns.str().find_first_not_of('\n') != std::string::npos || !found);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string_view input((const char *)data, size);
	CText name(take_line(&input)), other(take_line(&input)), url(take_line(&input)), given(input);
	check_identity(given, name, other);
	check_stamps(given);
	check_headers(given);
	check_item(given, name);
	check_lists(given, *other ? *other : ',');
	check_patterns(given, url);
	std::string path = given.str();
	REQUIRE(path.ends_with(zq_get_base_filename(given)));
	return 0;
}
