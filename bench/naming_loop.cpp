// naming_loop RULES ROUNDS: names the same requests with the agent's own code, round by round with the rules of that file,
// without rules, and not at all; a line of processor microseconds per request for each round, in this order.
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>

#include <cstdio>

#include "zqp_naming_uri.h"

namespace {

struct NameBuffer {
	std::string text;
};
void zq_append(NameBuffer *buffer, const char *text, size_t len) { buffer->text.append(text, len); }
std::string_view zq_view(const NameBuffer *buffer) { return buffer->text; }
void zq_release(NameBuffer *) {}

struct NoParams {
	const char *find(zq_naming_source, std::string_view) const { return NULL; }
	void append(NameBuffer *, const char *) const {}
};

const char *one_param(void *, zq_naming_source, const char *name)
{
	return strcmp(name, "page") ? NULL : "3";
}

// The first meets the last of the rules, the second none.
const char *const URLS[] = {"/shop/category/4711/items", "/index.php/user/42/orders?page=3"};
constexpr int REQUESTS = 500;

enum Naming { WITH_RULES, WITHOUT_RULES, NONE, NAMINGS };

size_t name(Naming naming, const std::string &rules, const char *url)
{
	if (naming == NONE) {
		return strlen(url);
	}
	zq_naming_request request = {url, "GET", one_param, NULL};
	const char *invalid_at = NULL;
	char *by_rule = get_name_by_rules(naming == WITH_RULES ? rules.c_str() : NULL, &request, &invalid_at);
	NameBuffer buffer;
	if (by_rule) {
		buffer.text = by_rule;
		free(by_rule);
	} else {
		zq_append_uri_name(&buffer, {url, 1, "/var/www/shop/index.php", NULL}, NoParams{});
	}
	return buffer.text.size();
}

double processor_us()
{
	timespec now;
	clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
	return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

} // namespace

int main(int argc, char **argv)
{
	std::ifstream file(argc > 2 ? argv[1] : "");
	std::string rules((std::istreambuf_iterator<char>(file)), {});
	if (rules.empty()) {
		return 2;
	}
	volatile size_t sum = 0; // a name that nobody looks at need not be made
	for (int round = atoi(argv[2]); round > 0; round--) {
		for (int naming = 0; naming < NAMINGS; naming++) {
			double begin = processor_us();
			for (int i = 0; i < REQUESTS; i++) {
				sum = sum + name((Naming)naming, rules, URLS[i % 2]);
			}
			printf("%.4f%c", (processor_us() - begin) / REQUESTS, naming + 1 < NAMINGS ? ' ' : '\n');
		}
	}
	return 0;
}
