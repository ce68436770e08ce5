/* Reads regular expressions: POSIX extended syntax and GNU's escapes, as the C library reads them in its own locale. */
#include "zqp_helper_regex.h"

#include <stdlib.h>

#include "zqp_text.h"

namespace zq_regex {

namespace {

constexpr int MAX_DEPTH = 64;
constexpr unsigned MAX_REPEATS = 1000; /* of one atom, by all the bounded repeats that it is nested in */
constexpr unsigned MAX_COUNT = 32767;  /* RE_DUP_MAX: beyond it a pattern does not compile */
constexpr unsigned ENDLESS = UINT16_MAX;

/* A part of the graph: entered at `first`, left by the `out` of `last`, which is still NOWHERE. */
struct fragment {
	uint16_t first, last;
};

uint16_t fail(graph *g, verdict_on_pattern verdict)
{
	if (g->verdict == FINE) {
		g->verdict = verdict;
	}
	g->at += strlen(g->at);
	return 0;
}

uint16_t add_node(graph *g, node_kind kind, uint8_t what = 0, uint16_t set = 0)
{
	if (g->node_count == MAX_NODES) {
		return fail(g, REFUSED);
	}
	g->nodes[g->node_count] = {kind, what, set, NOWHERE, NOWHERE};
	return (uint16_t)g->node_count++;
}

fragment one_node(uint16_t added)
{
	return {added, added};
}

fragment join(graph *g, fragment a, fragment b)
{
	g->nodes[a.last].out = b.first;
	return {a.first, b.last};
}

/* `a` or `b`; `b` may be nothing, as far as it is entered. */
fragment either(graph *g, fragment a, fragment b)
{
	uint16_t split = add_node(g, SPLIT), end = add_node(g, JOIN);
	g->nodes[split].branch = a.first;
	g->nodes[split].out = b.first;
	g->nodes[a.last].out = g->nodes[b.last].out = end;
	return {split, end};
}

/* The nodes from `begin` to `end` once more. */
fragment copy_of(graph *g, fragment given, unsigned begin, unsigned end)
{
	unsigned shift = g->node_count - begin;
	if (g->node_count + (end - begin) > MAX_NODES) {
		fail(g, REFUSED);
		return given;
	}
	for (unsigned i = begin; i < end; i++) {
		node copy = g->nodes[i];
		copy.out = copy.out == NOWHERE ? NOWHERE : (uint16_t)(copy.out + shift);
		copy.branch = copy.branch == NOWHERE ? NOWHERE : (uint16_t)(copy.branch + shift);
		g->nodes[g->node_count++] = copy;
	}
	return {(uint16_t)(given.first + shift), (uint16_t)(given.last + shift)};
}

/* The fragment, which began with node `begin`, at least `low` and at most `high` times. */
fragment repeated(graph *g, fragment given, unsigned begin, unsigned low, unsigned high)
{
	unsigned end = g->node_count, copies = high == ENDLESS ? (low ? low : 1) : high;
	fragment whole = one_node(add_node(g, JOIN)), next = given;
	uint16_t exit = add_node(g, JOIN);
	for (unsigned i = 1; i <= copies && g->verdict == FINE; i++) {
		fragment present = next;
		if (i < copies) {
			next = copy_of(g, given, begin, end); /* before what is given is joined to others */
		}
		if (i == copies && high == ENDLESS) {
			uint16_t again = add_node(g, SPLIT);
			g->nodes[present.last].out = again;
			g->nodes[again].branch = present.first;
			present = {low ? present.first : again, again};
		} else if (i > low) {
			uint16_t skip = add_node(g, SPLIT);
			g->nodes[skip].branch = present.first;
			g->nodes[skip].out = exit;
			present.first = skip;
		}
		whole = join(g, whole, present);
	}
	return join(g, whole, one_node(exit));
}

/* ---- reading ---- */

bool is_digit(char ch)
{
	return ch >= '0' && ch <= '9';
}

bool is_letter(char ch)
{
	return zq_ascii_lower(ch) >= 'a' && zq_ascii_lower(ch) <= 'z';
}

bool is_in_class(const char *name, size_t len, unsigned char ch)
{
	const struct {
		const char *name;
		bool has;
	} classes[] = {
		{"alpha", is_letter((char)ch)},
		{"upper", is_letter((char)ch)},
		{"lower", is_letter((char)ch)},
		{"digit", is_digit((char)ch)},
		{"alnum", is_letter((char)ch) || is_digit((char)ch)},
		{"xdigit", is_digit((char)ch) || (zq_ascii_lower((char)ch) >= 'a' && zq_ascii_lower((char)ch) <= 'f')},
		{"space", ch == ' ' || (ch >= '\t' && ch <= '\r')},
		{"blank", ch == ' ' || ch == '\t'},
		{"print", ch >= ' ' && ch < 127},
		{"graph", ch > ' ' && ch < 127},
		{"cntrl", ch < ' ' || ch == 127},
		{"punct", ch > ' ' && ch < 127 && !is_letter((char)ch) && !is_digit((char)ch)},
	};
	for (const auto &row : classes) {
		if (strlen(row.name) == len && memcmp(row.name, name, len) == 0) {
			return row.has;
		}
	}
	return false;
}

void add_either_case(byte_set *set, uint8_t byte)
{
	set->add((uint8_t)zq_ascii_lower((char)byte));
	set->add((uint8_t)zq_ascii_upper((char)byte));
}

/* Adds a class, and all but it when `negated`; false when there is none of that name. */
bool add_class(byte_set *set, const char *name, size_t len, bool negated)
{
	bool any = false;
	for (int byte = 1; byte < 256; byte++) {
		bool has = is_in_class(name, len, (unsigned char)byte);
		any |= has;
		if (has != negated) {
			set->add((uint8_t)byte);
		}
	}
	return any;
}

/* One end of a range in brackets: a byte, "[.x.]" or "[=x=]"; -1 when it is none. */
int read_range_end(graph *g)
{
	const char *at = g->at;
	if (*at == '[' && (at[1] == '.' || at[1] == '=')) {
		if (!at[2] || at[3] != at[1] || at[4] != ']') {
			return -1; /* names of characters are no use in a pattern of bytes */
		}
		g->at += 5;
		return (unsigned char)at[2];
	}
	return *at ? (unsigned char)*g->at++ : -1;
}

/* One thing in brackets: a class, a byte, a range. False when it is wrong. */
bool read_bracket_item(graph *g, byte_set *set, bool is_first)
{
	const char *at = g->at;
	if (at[0] == '[' && at[1] == ':') {
		const char *end = strstr(at + 2, ":]");
		g->at = end ? end + 2 : at + strlen(at);
		return end && add_class(set, at + 2, (size_t)(end - at - 2), false);
	}
	if (*at == '-' && !is_first && at[1] != ']') {
		return false;
	}
	int from = read_range_end(g), to = from;
	if (from >= 0 && g->at[0] == '-' && g->at[1] && g->at[1] != ']') {
		g->at++;
		to = g->at[0] == '[' && g->at[1] == ':' ? -1 : read_range_end(g);
	}
	/* the library compares ranges in upper case */
	from = from < 0 ? from : (unsigned char)zq_ascii_upper((char)from);
	to = to < 0 ? to : (unsigned char)zq_ascii_upper((char)to);
	for (int byte = from; byte >= 0 && byte <= to; byte++) {
		if (byte < 'a' || byte > 'z') {
			add_either_case(set, (uint8_t)byte);
		}
	}
	return from >= 0 && to >= from;
}

/* Behind "[". */
fragment read_brackets(graph *g)
{
	byte_set *set = &g->sets[g->set_count];
	bool negated = *g->at == '^', is_first = true;
	*set = {};
	g->at += negated;
	do {
		if (!read_bracket_item(g, set, is_first)) {
			return one_node(fail(g, NO_PATTERN));
		}
		is_first = false;
	} while (*g->at && *g->at != ']');
	if (!*g->at) {
		return one_node(fail(g, NO_PATTERN));
	}
	g->at++;
	for (uint64_t &word : set->bits) {
		word ^= negated ? ~0ull : 0;
	}
	if (negated) {
		set->bits[0] &= ~(1ull << '\n');
	}
	return one_node(add_node(g, ANY_OF, 0, (uint16_t)g->set_count++));
}

fragment read_class(graph *g, const char *name, const char *also, bool negated)
{
	byte_set *set = &g->sets[g->set_count];
	*set = {};
	if (name) {
		add_class(set, name, strlen(name), false);
	}
	for (; *also; also++) {
		set->add((uint8_t)*also);
	}
	for (uint64_t &word : set->bits) {
		word ^= negated ? ~0ull : 0;
	}
	return one_node(add_node(g, ANY_OF, 0, (uint16_t)g->set_count++));
}

fragment read_literal(graph *g, char ch)
{
	return one_node(add_node(g, LITERAL, (uint8_t)zq_ascii_lower(ch)));
}

/* Behind a backslash. */
fragment read_escape(graph *g, bool *is_assertion)
{
	static const char assertions[] = "^$bB<>`'"; /* by number; the first two are none after a backslash */
	char ch = *g->at;
	if (!ch || (ch >= '1' && ch <= '9')) {
		return one_node(fail(g, ch ? REFUSED : NO_PATTERN));
	}
	g->at++;
	const char *found = strchr(assertions + 2, ch);
	if (found) {
		*is_assertion = true;
		return one_node(add_node(g, ASSERTION, (uint8_t)(found - assertions)));
	}
	switch (ch) {
	case 'w':
	case 'W': return read_class(g, "alnum", "_", ch == 'W');
	case 's':
	case 'S': return read_class(g, "space", "", ch == 'S');
	default: return read_literal(g, ch);
	}
}

fragment read_alternatives(graph *g);

/* Behind "(". */
fragment read_group(graph *g)
{
	if (++g->depth > MAX_DEPTH) {
		return one_node(fail(g, REFUSED));
	}
	fragment inside = read_alternatives(g);
	g->depth--;
	if (*g->at != ')') {
		return one_node(fail(g, NO_PATTERN));
	}
	g->at++;
	return inside;
}

fragment read_atom(graph *g, bool *is_assertion)
{
	char ch = *g->at++;
	switch (ch) {
	case '(': return read_group(g);
	case '[': return read_brackets(g);
	case '\\': return read_escape(g, is_assertion);
	case '.': return read_class(g, NULL, "\n", true);
	case '^':
	case '$': *is_assertion = true; return one_node(add_node(g, ASSERTION, ch == '^' ? LINE_BEGIN : LINE_END));
	case '*':
	case '+':
	case '?':
	case '{': return one_node(fail(g, NO_PATTERN)); /* there is nothing to repeat */
	default: return read_literal(g, ch);
	}
}

/* A number in braces; `missing` when there is none. */
unsigned read_count(graph *g, unsigned missing)
{
	unsigned count = is_digit(*g->at) ? 0 : missing;
	while (is_digit(*g->at)) {
		count = count > MAX_COUNT ? count : count * 10 + (unsigned)(*g->at - '0');
		g->at++;
	}
	return count;
}

/* Reads a repeat; false when there is none, or a wrong one. */
bool read_repeat(graph *g, unsigned *low, unsigned *high)
{
	char ch = *g->at;
	if (!ch || !strchr("*+?{", ch)) {
		return false;
	}
	g->at++;
	*low = ch == '+';
	*high = ch == '?' ? 1 : ENDLESS;
	if (ch != '{') {
		return true;
	}
	bool has_low = is_digit(*g->at);
	*low = *high = read_count(g, 0);
	if (*g->at == ',') {
		g->at++;
		*high = read_count(g, ENDLESS);
	} else if (!has_low) {
		fail(g, NO_PATTERN);
	}
	if (*g->at != '}' || *low > *high || *low > MAX_COUNT || (*high > MAX_COUNT && *high != ENDLESS)) {
		fail(g, NO_PATTERN);
		return false;
	}
	g->at++;
	return true;
}

/* An atom with all its repeats. */
fragment read_piece(graph *g)
{
	unsigned begin = g->node_count, low, high;
	bool is_assertion = false;
	g->copies = 1;
	fragment piece = read_atom(g, &is_assertion);
	while (!is_assertion && read_repeat(g, &low, &high)) {
		if (high == 0) {
			g->node_count = begin;
			piece = one_node(add_node(g, JOIN));
			continue;
		}
		g->copies *= high != ENDLESS ? high : low ? low : 1;
		if (g->copies > MAX_REPEATS) {
			return one_node(fail(g, REFUSED));
		}
		piece = repeated(g, piece, begin, low, high);
	}
	return piece;
}

bool ends_branch(const graph *g)
{
	return !*g->at || *g->at == '|' || (*g->at == ')' && g->depth > 0);
}

fragment read_alternatives(graph *g)
{
	fragment all = {NOWHERE, NOWHERE};
	unsigned copies = 1;
	for (;;) {
		fragment branch = one_node(add_node(g, JOIN));
		while (!ends_branch(g)) {
			branch = join(g, branch, read_piece(g));
			copies = copies > g->copies ? copies : g->copies;
		}
		all = all.first == NOWHERE ? branch : either(g, all, branch);
		if (*g->at != '|') {
			g->copies = copies;
			return all;
		}
		g->at++;
	}
}

} // namespace

graph *read_pattern(const char *pattern)
{
	graph *g = (graph *)malloc(sizeof(graph));
	if (!g) {
		return NULL;
	}
	g->verdict = FINE;
	g->at = pattern;
	g->depth = 0;
	g->node_count = g->set_count = 0;
	if (strlen(pattern) > MAX_PATTERN_LEN) {
		fail(g, REFUSED);
		return g;
	}
	fragment whole = read_alternatives(g);
	join(g, whole, one_node(add_node(g, MATCH)));
	g->first = whole.first;
	return g;
}

} // namespace zq_regex
