// What comes in with a request or an answer and is cut up by the extension: identity headers, queue stamps, response headers,
// answer data, lists of names and patterns; against plain descriptions.
// Input: three lines and the rest, the last first taken as what is cut up.
// sources: ext/zqp_helper_string.cpp ext/zqp_helper_clock.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp ext/zqp_io_metric.cpp tests/fuzz/engine.cpp
#include <climits>
#include <vector>

#include "require.h"
#include "zqp_io.h"

namespace {

constexpr size_t NONE = std::string::npos;

// Takes over request memory; `expected` null when none is to come.
void check_text(char *found, const std::string *expected)
{
	REQUIRE(!found == !expected);
	REQUIRE(!found || *expected == found);
	if (found) {
		efree(found);
	}
}

void check_identity(const CText &given, const CText &param, const CText &other)
{
	std::string header = given.str(), name = param.str(), secret = other.str();
	char split = *other ? *other : ';';
	size_t at = header.find(name);
	std::string value = at == NONE ? "" : header.substr(at + name.size());
	value = value.substr(0, value.find(split));
	check_text(get_string_param(given, param, split), at == NONE ? NULL : &value);

	size_t bar = secret.find('|');
	std::string rest = bar == NONE ? "" : secret.substr(bar + 1);
	check_text(get_application_and_instance_id(other), bar == NONE ? NULL : &rest);
	REQUIRE(is_same_account(other, given) == (bar != NONE && header.starts_with(secret.substr(0, bar))));
}

void check_stamps(const CText &given)
{
	std::string stamp = given.str();
	uint32_t number = 0;
	if (stamp.size() > 2 && stamp[0] == 't') {
		number = (uint32_t)strtoll(stamp.c_str() + 2, NULL, 10);
	} else if (stamp.size() > 2 && stamp[0] == 's') {
		std::string digits;
		for (char ch : stamp.substr(2)) {
			digits += isdigit((unsigned char)ch) ? std::string(1, ch) : "";
		}
		number = (uint32_t)strtoll(digits.c_str(), NULL, 10);
	}
	int32_t wait = (int32_t)(7u - number);
	REQUIRE(get_block_time(given, 7) == (wait < 0 ? 0 : wait));
	zq_memory_used_of(given);
}

void check_headers(const CText &given)
{
	int content = get_header_content(given);
	REQUIRE(content >= -1 && content <= 1);
	REQUIRE((content == 0) >= (strcasestr(given, "content-length:") != NULL));
	REQUIRE(get_header_status(given) == 0 || strcasestr(given, "http/1."));
}

// The value between the next two quotes after the name and one more character.
void check_item(const CText &data, const CText &name)
{
	std::string text = data.str();
	size_t at = text.find(name.str()), behind = at == NONE ? NONE : at + strlen(name) + 1;
	size_t open = behind == NONE || behind > text.size() ? NONE : text.find('"', behind);
	char *value = NULL;
	int len = -1;
	REQUIRE(get_transcation_data_item(data, name, &value, &len) == (open != NONE));
	if (open != NONE) {
		std::string expected = text.substr(open + 1, std::min(text.find('"', open + 1), text.size()) - open - 1);
		REQUIRE(value == (char *)data + open + 1 && len == (int)expected.size());
	}
}

std::vector<std::string> pieces(const std::string &text, const std::string &separators, bool drop_high)
{
	std::vector<std::string> found(1);
	for (char ch : text) {
		if (separators.find(ch) != NONE) {
			found.emplace_back();
		} else if (!drop_high || !found.back().empty() || (ch & 0x80) == 0) {
			found.back() += ch;
		}
	}
	std::erase(found, "");
	return found;
}

void check_lists(const CText &given, char split)
{
	cArray *array = get_c_array(given, split);
	std::vector<std::string> expected = pieces(given.str(), std::string(1, split), false);
	REQUIRE(!array == !*given);
	REQUIRE(!array || std::vector<std::string>(array->items, array->items + array->length) == expected);
	free_c_array(array);
	const char *const separators[] = {"\t ,", "|", ",", " &[]", "&?", ""};
	for (int mode = 0; mode < 6; mode++) {
		char **list = get_str_array(given, mode), **at = list;
		for (const std::string &piece : pieces(given.str(), separators[mode], true)) {
			REQUIRE(at && *at && piece == *at++);
		}
		REQUIRE(!list == !*given && (!at || !*at));
		free_str_array(list);
	}
}

void check_patterns(const CText &patterns, const CText &url)
{
	zend_zqprof_globals globals = {};
	void *blocks[] = {&globals}, *context[] = {blocks};
	globals.urls_captured = patterns;
	int found = in_urls_captured(url, (void ***)context);
	REQUIRE(found == 0 || found == 1);
	REQUIRE(patterns.str().find_first_not_of("\n") != NONE || !found);
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
