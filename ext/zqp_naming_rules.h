/* Naming rules: a JSON array of rules by URL, method and parameters; the first that holds names the action.
 *
 *   rule       {"name": text, "match": condition, "split": composition}
 *   condition  {"method": 0 any, 1 GET, 2 POST, 3 PUT, 4 DELETE, 5 HEAD,
 *               "match": operator on the URL, "value": text, optional "params": [parameter condition, ...]}
 *   parameter  {"type": 1 query, 2 header, 3 form, "name": text, "match": operator on its value, "value": text}
 *   operator   0 always, 1 equals, 2 starts with, 3 ends with, 4 contains, 5 extended regular expression; case ignored
 *   composition, all optional: "uri": "2" first two segments, "-2" last two, "3,1" those; "urlParams", "headerParams",
 *               "bodyParams", "cookieParams": names separated by ","; "method": true
 *
 * The keys of rules and conditions are read by position; one that is out of place, missing or of another type makes its
 * rule fail without a word. Those of the composition come in any order.
 *
 * Free of the engine, so that rules can also be tried outside a request: what a rule may ask for comes through
 * zq_naming_request, and all memory is malloc's. */
#ifndef ZQP_NAMING_RULES_H
#define ZQP_NAMING_RULES_H

#include <stddef.h>

struct cJSON;

/* A visitor decides how long a form field is. */
static const size_t ZQ_NAME_SIZE = 4096; /* most bytes of an action's name, whoever gives it; the rest is cut off */
static const size_t ZQ_CAPTURED_VALUE_SIZE = 256; /* of a request's value, these first bytes take part in a name */

/* Where a parameter comes from; the first three are the rules' own "type" codes. */
enum zq_naming_source { ZQ_FROM_QUERY = 1, ZQ_FROM_HEADER = 2, ZQ_FROM_FORM = 3, ZQ_FROM_COOKIE = 4 };

/* The request to be named. */
struct zq_naming_request {
	const char *url;    /* as the client sent it; null: no name */
	const char *method; /* null: unknown, no rule that asks for a method holds */
	/* Value of a parameter or header, borrowed until the naming is done; null when absent, empty or not a text. */
	const char *(*value)(void *context, enum zq_naming_source source, const char *name);
	void *context;
};

/* Name by the first rule of the JSON text that holds, the caller's to free(); null when none does, or for null, "" or
 * "[]". `*invalid_at` becomes the position where the JSON stopped making sense, and is left alone otherwise. */
char *get_name_by_rules(const char *rules, const struct zq_naming_request *request, const char **invalid_at);
/* The same for one rule object; its strings may be cut up in the course. */
char *get_name_by_rule(struct cJSON *rule, const struct zq_naming_request *request);
/* Gives `visit` each regular expression of the rules, borrowed, in their order; none of text that is no JSON. */
void zq_each_rule_pattern(const char *rules, void (*visit)(void *context, const char *pattern), void *context);
/* 1 when a condition object holds: the method, the URL and every parameter condition. */
int matched(const struct cJSON *match, const struct zq_naming_request *request);
/* "WebAction/<name>/" and the parts that `split` asks for: URL segments, parameters, method; at most ZQ_NAME_SIZE
 * bytes. free(); null without memory. `split`'s strings are cut up in the course. */
char *naming(const char *name, struct cJSON *split, const struct zq_naming_request *request);

#endif
