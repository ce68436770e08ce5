/* Keeps patterns away from the C library's regular expression compiler that would crash it or hold it up: it recurses
 * once per group, and unfolds every repeat into copies of what is repeated. Its matcher begins anew at every byte, and
 * can make a new state of all atoms at every step: "[a-z]+@" takes time by the square of a text of letters, ".*a.{60}b"
 * sixty times that, and the text may be a form field of megabytes. So only its beginning is looked at. References back
 * to a group, no part of the extended syntax, take seconds for a hundred bytes. */
#include "zqp_text.h"

#include <regex.h>
#include <stdlib.h>

static const size_t max_pattern_len = 1024;
static const int max_depth = 64;
static const unsigned long max_repeats = 1000; /* of one atom, by all the repeats that it is nested in */
static const unsigned long max_atoms = 3000;   /* after unfolding: 0.1 s and 100 MiB for the worst of them */
static const unsigned long max_loop = 64;   /* of what an endless repeat goes round without reading: time by its cube */
static const size_t max_subject_len = 2048; /* 7 ms for "[a-z]+@"; at 64 KiB it would be 6 s */
static const size_t max_steps = 20000000;   /* atoms times the square of the length: half a second at worst */
static const unsigned long max_count = 32767; /* RE_DUP_MAX: beyond it a pattern does not compile */

/* What a repeat may multiply: a character, a bracket expression, a group, with the repeats that it has already. */
typedef struct atom {
	unsigned long atoms;   /* unfolded; a group and each repeat count as one more */
	unsigned long repeats; /* greatest product of nested repeats */
	int can_be_empty;
} atom;

/* An open group, or the whole pattern: what it has read without the last atom, which a repeat may follow. */
typedef struct group {
	atom read; /* `can_be_empty`: the present branch */
	atom last;
	int has_empty_branch;
} group;

static const atom nothing = {0, 1, 1};

static void settle(group *g)
{
	g->read.atoms += g->last.atoms;
	if (g->last.repeats > g->read.repeats) {
		g->read.repeats = g->last.repeats;
	}
	g->read.can_be_empty &= g->last.can_be_empty;
	g->last = nothing;
}

static void add_atom(group *g, atom added)
{
	settle(g);
	g->last = added;
}

static void begin_branch(group *g)
{
	add_atom(g, {1, 1, 1});
	g->has_empty_branch |= g->read.can_be_empty;
	g->read.can_be_empty = 1;
}

static void close_group(group *g)
{
	settle(g);
	add_atom(g - 1, {g->read.atoms + 1, g->read.repeats, g->read.can_be_empty | g->has_empty_branch});
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

struct repeat {
	unsigned long copies; /* that it makes of the atom */
	int may_be_none, is_endless;
};

/* "{n}", "{n,}" or "{n,m}"; `*at` stands behind the "{" and is moved behind the "}". */
static struct repeat read_braces(const char **at)
{
	char *end;
	unsigned long low = strtoul(*at, &end, 10), copies = low;
	int is_endless = 0;
	if (*end == ',') {
		const char *high = end + 1;
		copies = strtoul(high, &end, 10);
		is_endless = end == high;
		copies = is_endless ? low + 1 : copies > low ? copies : low;
	}
	*at = *end == '}' ? end + 1 : end;
	return {copies < 1 ? 1 : copies > max_count ? max_count : copies, low == 0, is_endless};
}

/* Applies the repeat `ch` to the last atom; 0 when it would go round too much that can be empty. */
static int read_repeat(char ch, const char **at, atom *last)
{
	struct repeat repeat = {ch == '+' ? 2ul : 1ul, ch != '+', ch != '?'}; /* "+" is unfolded as "aa*" */
	if (ch == '{') {
		repeat = read_braces(at);
	}
	if (repeat.is_endless && last->can_be_empty && last->atoms > max_loop) {
		return 0;
	}
	last->atoms = last->atoms * repeat.copies + 1;
	last->repeats *= repeat.copies;
	last->can_be_empty |= repeat.may_be_none;
	return 1;
}

/* An escaped character, or one of the places that GNU's syntax knows; 0 for a reference back. */
static int read_escape(const char **at, group *g)
{
	if (**at >= '1' && **at <= '9') {
		return 0;
	}
	add_atom(g, {1, 1, **at && strchr("bB<>`'", **at)});
	*at += **at != '\0';
	return 1;
}

/* Reads one atom or operator; 0 when a bound is passed. */
static int read_one(const char **at, group *groups, int *depth)
{
	group *g = &groups[*depth];
	char ch = *(*at)++;
	int is_bounded = 1;
	switch (ch) {
	case '(':
		if (*depth == max_depth) {
			return 0;
		}
		groups[++*depth] = {nothing, nothing, 0};
		return 1;
	case ')':
		if (*depth > 0) {
			close_group(g);
			g = &groups[--*depth];
		} else {
			add_atom(g, {1, 1, 0});
		}
		break;
	case '|': begin_branch(g); break;
	case '\\': is_bounded = read_escape(at, g); break;
	case '*':
	case '?':
	case '+':
	case '{': is_bounded = read_repeat(ch, at, &g->last); break;
	case '[':
		*at = skip_brackets(*at);
		add_atom(g, {1, 1, 0});
		break;
	default: add_atom(g, {1, 1, ch == '^' || ch == '$'});
	}
	return is_bounded && g->read.atoms + g->last.atoms <= max_atoms && g->last.repeats <= max_repeats;
}

/* Atoms and repeats of the pattern once it is unfolded, at least 1; 0 when a bound is passed. */
static unsigned long count_atoms(const char *pattern)
{
	if (!pattern || strlen(pattern) > max_pattern_len) {
		return 0;
	}
	group groups[max_depth + 1];
	int depth = 0;
	groups[0] = {nothing, nothing, 0};
	while (*pattern) {
		if (!read_one(&pattern, groups, &depth)) {
			return 0;
		}
	}
	return groups[0].read.atoms + groups[0].last.atoms + 1;
}

int zq_regex_is_bounded(const char *pattern)
{
	return count_atoms(pattern) != 0;
}

/* How much of a subject may be looked at. Without an endless repeat no match goes far. */
static size_t examined_len(const char *pattern, unsigned long atoms)
{
	size_t len = max_subject_len;
	if (strpbrk(pattern, "*+") || strstr(pattern, ",}")) {
		while (len * len * atoms > max_steps) {
			len -= len / 16;
		}
	}
	return len;
}

int zq_regex_matches(const char *subject, const char *pattern)
{
	regex_t compiled;
	unsigned long atoms = count_atoms(pattern);
	if (atoms == 0 || regcomp(&compiled, pattern, REG_EXTENDED | REG_ICASE | REG_NEWLINE | REG_NOSUB) != 0) {
		return 0;
	}
	size_t len = strnlen(subject, examined_len(pattern, atoms));
	regmatch_t range = {0, (regoff_t)len};
	int found = regexec(&compiled, subject, 0, &range, REG_STARTEND | (subject[len] ? REG_NOTEOL : 0)) == 0;
	regfree(&compiled);
	return found;
}
