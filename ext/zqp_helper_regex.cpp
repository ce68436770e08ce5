/* Keeps patterns away from the C library's regular expression compiler that would crash it or hold it up: it recurses
 * once per group, and unfolds every repeat into copies of what is repeated. Its matcher takes linear time, but for
 * references back to a group, which are no part of the extended syntax: seconds for an address of a hundred bytes. */
#include "zqp_text.h"

#include <stdlib.h>

static const size_t max_pattern_len = 1024;
static const int max_depth = 64;
static const unsigned long max_repeats = 1000; /* of one atom, by all the repeats that it is nested in */
static const unsigned long max_atoms = 3000;   /* after unfolding: 0.1 s and 100 MiB for the worst of them */
static const unsigned long max_count = 32767;  /* RE_DUP_MAX: beyond it a pattern does not compile */

/* An open group, or the whole pattern. */
typedef struct group {
	unsigned long atoms;        /* unfolded, without the last one */
	unsigned long last_atoms;   /* the one that a repeat would multiply; a group and each repeat count as one */
	unsigned long repeats;      /* greatest product of nested repeats, without the last atom's */
	unsigned long last_repeats;
} group;

static void settle(group *g)
{
	g->atoms += g->last_atoms;
	if (g->last_repeats > g->repeats) {
		g->repeats = g->last_repeats;
	}
	g->last_atoms = 0;
	g->last_repeats = 1;
}

static void add_atom(group *g, unsigned long atoms, unsigned long repeats)
{
	settle(g);
	g->last_atoms = atoms;
	g->last_repeats = repeats;
}

/* Behind a bracket expression whose "[" was just read; a "]" directly behind "[" or "[^", and those that end a class
 * such as "[:alpha:]", do not end it. */
static const char *skip_brackets(const char *at)
{
	if (*at == '^') {
		at++;
	}
	if (*at == ']') {
		at++;
	}
	while (*at && *at != ']') {
		char kind = *at == '[' ? at[1] : '\0';
		if (kind != ':' && kind != '.' && kind != '=') {
			at++;
			continue;
		}
		const char closing[] = {kind, ']', '\0'};
		const char *end = strstr(at + 2, closing);
		at = end ? end + 2 : at + 1;
	}
	return *at ? at + 1 : at;
}

/* Copies that "{n}", "{n,}" or "{n,m}" makes of an atom; `*at` stands behind the "{" and is moved behind the "}". */
static unsigned long copies_of_braces(const char **at)
{
	char *end;
	unsigned long low = strtoul(*at, &end, 10), copies = low;
	if (*end == ',') {
		const char *high = end + 1;
		copies = strtoul(high, &end, 10);
		copies = end == high ? low + 1 : copies > low ? copies : low;
	}
	*at = *end == '}' ? end + 1 : end;
	return copies < 1 ? 1 : copies > max_count ? max_count : copies;
}

/* Reads one atom or operator; 0 when a bound is passed. */
static int read_one(const char **at, group *groups, int *depth)
{
	group *g = &groups[*depth];
	unsigned long copies = 1;
	char ch = *(*at)++;
	int is_repeat = strchr("*?+{", ch) != NULL; /* a node of its own: repeats of repeats copy it with the rest */
	if (ch == '\\' && **at >= '1' && **at <= '9') {
		return 0;
	}
	if (ch == '(') {
		if (*depth == max_depth) {
			return 0;
		}
		groups[++*depth] = {0, 0, 1, 1};
		return 1;
	}
	if (ch == ')' && *depth > 0) {
		settle(g);
		--*depth;
		add_atom(g - 1, g->atoms + 1, g->repeats);
	} else if (ch == '{') {
		copies = copies_of_braces(at);
	} else if (ch == '+') {
		copies = 2; /* unfolded as "aa*" */
	} else if (ch == '[') {
		*at = skip_brackets(*at);
		add_atom(g, 1, 1);
	} else if (ch != '*' && ch != '?') {
		*at += ch == '\\' && **at;
		add_atom(g, 1, 1);
	}
	g = &groups[*depth];
	g->last_atoms = g->last_atoms * copies + is_repeat;
	g->last_repeats *= copies;
	return g->atoms + g->last_atoms <= max_atoms && g->last_repeats <= max_repeats;
}

int zq_regex_is_bounded(const char *pattern)
{
	if (!pattern || strlen(pattern) > max_pattern_len) {
		return 0;
	}
	group groups[max_depth + 1];
	int depth = 0;
	groups[0] = {0, 0, 1, 1};
	while (*pattern) {
		if (!read_one(&pattern, groups, &depth)) {
			return 0;
		}
	}
	return 1;
}
