/* A regular expression as a graph, between its reader (zqp_helper_regex_read.cpp) and the matcher
 * (zqp_helper_regex.cpp). */
#ifndef ZQP_HELPER_REGEX_H
#define ZQP_HELPER_REGEX_H

#include <stddef.h>
#include <stdint.h>

namespace zq_regex {

constexpr size_t MAX_PATTERN_LEN = 1024;
constexpr unsigned MAX_NODES = 6000; /* of a pattern that is unfolded */
constexpr uint16_t NOWHERE = UINT16_MAX;

enum node_kind : uint8_t { JOIN, SPLIT, LITERAL, ANY_OF, ASSERTION, MATCH };
enum assertion : uint8_t { LINE_BEGIN, LINE_END, WORD_EDGE, NO_WORD_EDGE, WORD_BEGIN, WORD_END, TEXT_BEGIN, TEXT_END };

struct node {
	node_kind kind;
	uint8_t what;    /* the byte, in lower case, or the assertion */
	uint16_t set;    /* ANY_OF */
	uint16_t out;    /* the next node */
	uint16_t branch; /* SPLIT: the other one */
};

struct byte_set {
	uint64_t bits[4];
	void add(uint8_t byte) { bits[byte >> 6] |= 1ull << (byte & 63); }
	bool has(uint8_t byte) const { return bits[byte >> 6] >> (byte & 63) & 1; }
};

enum verdict_on_pattern { FINE, NO_PATTERN, REFUSED /* it could take long */ };

struct graph {
	verdict_on_pattern verdict;
	const char *at; /* what is still to be read */
	int depth;
	unsigned copies; /* of one atom, at most, in what was read last */
	unsigned node_count, set_count;
	uint16_t first;
	node nodes[MAX_NODES];
	byte_set sets[MAX_PATTERN_LEN];
};

/* The graph of a pattern; its verdict says whether it is whole. Null without memory. free(). */
graph *read_pattern(const char *pattern);

} // namespace zq_regex

#endif
