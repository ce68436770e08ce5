// naming_patterns: what the regular expressions of rules take at worst: for each, how much of a text it looks at, and processor
// milliseconds to compile it and match it against the text that keeps it busiest; a line each.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string>

#include "zqp_text.h"

namespace {

double processor_ms()
{
	timespec now;
	clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
	return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

std::string times(int count, const std::string &text)
{
	std::string all;
	for (int i = 0; i < count; i++) all += text;
	return all;
}

} // namespace

int main()
{
	const std::string words = times(63, "checkout-pay|") + "checkout-pay";
	const std::string patterns[] = {"[a-z]+@", "^/(" + words + ")/.*\\.html$", ".*(" + words + ")x", ".*a" + times(1000, ".") + "b",
		"(a|b)*a(a|b){200}c", times(500, "a?") + ".*b", times(160, "[a-z]?") + "@", times(200, "(a*)*") + "b", "(a?){1000}b",
		"(" + times(300, "\\b|") + "a)*@", "(^|\\b|a)*{30}b", "(.{1,30}){33}@", "((a{1,30}){1,33})*b", "(((a?){10}){10}){10}@"};
	std::string letters(20000, 'a'), mixed = letters, blanks = letters;
	for (size_t i = 0; i < mixed.size(); i++) {
		mixed[i] = "ab"[i * 7919 >> 3 & 1];
		blanks[i] = "a "[i & 1];
	}
	for (const std::string &pattern : patterns) {
		double worst = 0;
		for (const std::string &text : {letters, mixed, blanks}) {
			double best = 1e9; // of five: what else runs on the machine is no part of it
			for (int i = 0; i < 5; i++) {
				double begin = processor_ms();
				zq_regex_matches(text.c_str(), pattern.c_str());
				best = std::min(best, processor_ms() - begin);
			}
			worst = std::max(worst, best);
		}
		printf("%-40.40s %8zu bytes %8.2f ms\n", pattern.c_str(), zq_regex_examined_len(pattern.c_str()), worst);
	}
	return 0;
}
