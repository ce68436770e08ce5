/* Regular expressions: POSIX extended syntax and GNU's escapes, by bytes, the case of ASCII letters ignored. The C
 * library's matcher starts again at every byte of a text, which visitors choose, and can make a new state of a whole
 * pattern at every step; its compiler recurses, and unfolds repeats without bound. So patterns are compiled here, into
 * the positions that a match goes through: one for each character, and the places that may follow each. A text is read
 * once; the positions that it can have reached are bits of a set, which move on together. What that takes at most is
 * known before. References back to a group, no part of the syntax, are refused: matching them takes time without bound.
 */
#include "zqp_helper_regex.h"

#include <limits.h>
#include <stdlib.h>

#include "zqp_text.h"

using namespace zq_regex;

namespace {

constexpr unsigned MAX_STEPS = 1000000; /* in looking what may follow what: some 3 ms */
constexpr size_t MAX_WORK = 12000000;   /* words of sets that are moved for one text: some 5 ms */

/* ---- what may follow what ---- */

/* Positions are the nodes that are no way of the graph only, in their order. Sets of them are `words` words. */
struct automaton {
	unsigned words, positions, rows, assertion_count;
	uint64_t *reach;      /* per byte: the positions that it takes */
	uint64_t *next_too;   /* positions that the next one may follow */
	uint64_t *branching;  /* positions that others may follow: row_of[] */
	uint64_t *assertions; /* positions that take no byte */
	uint64_t *begin;      /* where a match may begin */
	uint64_t *now, *step; /* the positions reached; those that may follow */
	uint64_t *row;        /* sets of followers */
	uint16_t *row_of;     /* per position */
	uint8_t *assertion;   /* per position */
	unsigned match;       /* position */
};

bool is_position(const node &n)
{
	return n.kind != JOIN && n.kind != SPLIT;
}

void add(uint64_t *set, unsigned position)
{
	set[position >> 6] |= 1ull << (position & 63);
}

bool has(const uint64_t *set, unsigned position)
{
	return set[position >> 6] >> (position & 63) & 1;
}

/* What the graph needs besides while it becomes an automaton. */
struct closing {
	const graph *g;
	unsigned steps;
	unsigned pass; /* number of the present search */
	uint16_t position_of[MAX_NODES];
	uint16_t seen_in[MAX_NODES];
	uint16_t row_of[MAX_NODES];
	uint16_t stack[MAX_NODES + 1];
};

/* Adds the positions that can be reached from a node without going through another; false when that takes too long. */
bool close_over(closing *c, uint16_t from, uint64_t *set)
{
	unsigned depth = 0;
	c->pass++;
	c->stack[depth++] = from;
	c->seen_in[from] = (uint16_t)c->pass;
	while (depth) {
		uint16_t at = c->stack[--depth];
		const node &n = c->g->nodes[at];
		if (++c->steps > MAX_STEPS) {
			return false;
		}
		if (is_position(n)) {
			add(set, c->position_of[at]);
			continue;
		}
		const uint16_t ways[] = {n.out, n.branch};
		for (uint16_t next : ways) {
			if (next != NOWHERE && c->seen_in[next] != (uint16_t)c->pass) {
				c->seen_in[next] = (uint16_t)c->pass;
				c->stack[depth++] = next;
			}
		}
	}
	return true;
}

/* The only position that can be reached from a node, or NOWHERE. */
uint16_t only_follower(const closing *c, uint16_t from)
{
	while (c->g->nodes[from].kind == JOIN) {
		from = c->g->nodes[from].out;
	}
	return is_position(c->g->nodes[from]) ? c->position_of[from] : NOWHERE;
}

void take_bytes(automaton *a, const graph *g, const node &n, unsigned position)
{
	if (n.kind == LITERAL) {
		add(a->reach + n.what * a->words, position);
		add(a->reach + (uint8_t)zq_ascii_upper((char)n.what) * a->words, position);
		return;
	}
	for (unsigned byte = 0; n.kind == ANY_OF && byte < 256; byte++) {
		if (g->sets[n.set].has((uint8_t)byte)) {
			add(a->reach + byte * a->words, position);
		}
	}
}

/* Followers of each position. Those of two that lead to the same node share a row. */
bool add_followers(automaton *a, closing *c)
{
	unsigned position = 0;
	for (unsigned i = 0; i < c->g->node_count; i++) {
		const node &n = c->g->nodes[i];
		if (!is_position(n)) {
			continue;
		}
		take_bytes(a, c->g, n, position);
		if (n.kind == ASSERTION) {
			add(a->assertions, position);
			a->assertion[position] = n.what;
			a->assertion_count++;
		}
		if (n.kind == MATCH) {
			a->match = position;
		} else if (only_follower(c, n.out) == position + 1) {
			add(a->next_too, position);
		} else {
			if (c->row_of[n.out] == NOWHERE) {
				c->row_of[n.out] = (uint16_t)a->rows;
				if (!close_over(c, n.out, a->row + a->rows++ * a->words)) {
					return false;
				}
			}
			add(a->branching, position);
			a->row_of[position] = c->row_of[n.out];
		}
		position++;
	}
	return close_over(c, c->g->first, a->begin);
}

/* One block; null without memory. free(). */
automaton *allocate_automaton(unsigned positions)
{
	size_t words = (positions + 63) / 64, sets = 256 + 6 + positions;
	size_t size = sizeof(automaton) + sets * words * sizeof(uint64_t) + positions * (sizeof(uint16_t) + 1);
	automaton *a = (automaton *)calloc(1, size);
	if (!a) {
		return NULL;
	}
	uint64_t *set = (uint64_t *)(a + 1);
	a->words = (unsigned)words;
	a->positions = positions;
	uint64_t **const members[] = {&a->next_too, &a->branching, &a->assertions, &a->begin, &a->now, &a->step};
	for (uint64_t **member : members) {
		*member = set;
		set += words;
	}
	a->reach = set;
	a->row = set + 256 * words;
	a->row_of = (uint16_t *)(a->row + positions * words);
	a->assertion = (uint8_t *)(a->row_of + positions);
	return a;
}

/* The automaton of a pattern that is FINE; else null. free(). */
automaton *compile(const char *pattern, verdict_on_pattern *verdict)
{
	graph *g = read_pattern(pattern);
	closing *c = g && g->verdict == FINE ? (closing *)malloc(sizeof(closing)) : NULL;
	*verdict = g ? g->verdict : NO_PATTERN;
	automaton *a = NULL;
	if (c) {
		unsigned positions = 0;
		for (unsigned i = 0; i < g->node_count; i++) {
			c->position_of[i] = (uint16_t)positions;
			c->seen_in[i] = 0;
			c->row_of[i] = NOWHERE;
			positions += is_position(g->nodes[i]);
		}
		c->g = g;
		c->steps = c->pass = 0;
		a = allocate_automaton(positions);
	}
	if (a && !add_followers(a, c)) {
		*verdict = REFUSED;
		free(a);
		a = NULL;
	}
	free(c);
	free(g);
	return a;
}

/* ---- matching ---- */

/* How many bytes of a text it may look at. */
size_t examined_len(const automaton *a)
{
	size_t len = MAX_WORK / (6 * a->words + (a->rows + a->assertion_count) * (a->words + 2));
	return len < ZQ_REGEX_MOST_BYTES ? len : ZQ_REGEX_MOST_BYTES;
}

bool is_word(int ch)
{
	char lower = ch > 0 && ch < 128 ? zq_ascii_lower((char)ch) : '\0';
	return lower == '_' || (lower >= 'a' && lower <= 'z') || (lower >= '0' && lower <= '9');
}

/* Between two bytes of the text, -1 before it and after it. */
bool assertion_holds(uint8_t assertion, int before, int after)
{
	switch (assertion) {
	case LINE_BEGIN: return before == -1 || before == '\n';
	case LINE_END: return after == -1 || after == '\n';
	case WORD_EDGE: return is_word(before) != is_word(after);
	case NO_WORD_EDGE: return is_word(before) == is_word(after);
	case WORD_BEGIN: return !is_word(before) && is_word(after);
	case WORD_END: return is_word(before) && !is_word(after);
	case TEXT_BEGIN: return before == -1;
	default: return after == -1;
	}
}

/* Adds to `step` what may follow this position: the loop that takes the time. */
__attribute__((optimize("O3"))) void add_followers_of(automaton *a, unsigned position)
{
	if (has(a->next_too, position)) {
		add(a->step, position + 1);
		return;
	}
	const uint64_t *__restrict row = a->row + a->row_of[position] * a->words;
	uint64_t *__restrict step = a->step;
	for (unsigned i = 0, words = a->words; i < words; i++) {
		step[i] |= row[i];
	}
}

/* What may follow the present positions, or begin here. */
void follow(automaton *a)
{
	uint64_t carried = 0;
	for (unsigned i = 0; i < a->words; i++) {
		uint64_t next = a->now[i] & a->next_too[i];
		a->step[i] = a->begin[i] | next << 1 | carried;
		carried = next >> 63;
	}
	unsigned last_row = NOWHERE;
	for (unsigned i = 0; i < a->words; i++) {
		for (uint64_t left = a->now[i] & a->branching[i]; left; left &= left - 1) {
			unsigned position = i * 64 + (unsigned)__builtin_ctzll(left);
			if (a->row_of[position] != last_row) {
				last_row = a->row_of[position];
				add_followers_of(a, position);
			}
		}
	}
}

/* Goes through the assertions that hold between two bytes. Those that it leads to may lie anywhere. */
void pass_assertions(automaton *a, int before, int after)
{
	uint64_t *passed = a->now; /* not needed any more */
	unsigned last_row = NOWHERE;
	memset(passed, 0, a->words * sizeof(*passed));
	for (bool is_new = true; is_new;) {
		is_new = false;
		for (unsigned i = 0; i < a->words; i++) {
			uint64_t left = a->step[i] & a->assertions[i] & ~passed[i];
			passed[i] |= left;
			for (; left; left &= left - 1) {
				unsigned position = i * 64 + (unsigned)__builtin_ctzll(left);
				bool is_known = has(a->branching, position) && a->row_of[position] == last_row;
				if (!is_known && assertion_holds(a->assertion[position], before, after)) {
					add_followers_of(a, position);
					last_row = has(a->branching, position) ? a->row_of[position] : last_row;
					is_new = true;
				}
			}
		}
	}
}

bool matches(automaton *a, const char *subject)
{
	size_t most = examined_len(a);
	int before = -1;
	for (const char *at = subject;; at++) {
		int after = *at ? (unsigned char)*at : -1;
		follow(a);
		if (a->assertion_count) {
			pass_assertions(a, before, after);
		}
		if (has(a->step, a->match)) {
			return true;
		}
		if (after == -1 || (size_t)(at - subject) == most) {
			return false;
		}
		const uint64_t *reach = a->reach + (unsigned)after * a->words;
		for (unsigned i = 0; i < a->words; i++) {
			a->now[i] = a->step[i] & reach[i];
		}
		before = after;
	}
}

} // namespace

size_t zq_regex_examined_len(const char *pattern)
{
	verdict_on_pattern verdict;
	automaton *a = compile(pattern, &verdict);
	size_t len = a ? examined_len(a) : verdict == REFUSED ? 0 : ZQ_REGEX_MOST_BYTES;
	free(a);
	return len;
}

int zq_regex_matches(const char *subject, const char *pattern)
{
	verdict_on_pattern verdict;
	automaton *a = compile(pattern, &verdict);
	int found = a && matches(a, subject);
	free(a);
	return found;
}
