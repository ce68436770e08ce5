/* Evaluation of naming rules. JSON and regular expressions are read for every request: nothing is kept. */
#include "zqp_naming_rules.h"

#include <cJSON.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zqp_process_memory.h"
#include "zqp_text.h"

enum match_operator { ALWAYS = 0, EQUALS = 1, STARTS_WITH = 2, ENDS_WITH = 3, CONTAINS = 4, MATCHES_REGEX = 5 };

static bool is_type(const cJSON *item, int type)
{
	return (item->type & 0xFF) == type;
}

/* The item at `*at` when it has this key and type, and `*at` moves on; else null. */
static cJSON *next_key(cJSON **at, const char *key, int type)
{
	cJSON *item = *at;
	if (!item || !is_type(item, type) || !item->string || strcmp(item->string, key) != 0) {
		return NULL;
	}
	*at = item->next;
	return item;
}

static int operator_holds(int match, const char *subject, const char *value)
{
	if (match == ALWAYS) {
		return 1;
	}
	if (!subject || !value) {
		return 0;
	}
	size_t subject_len = strlen(subject), value_len = strlen(value);
	switch (match) {
	case EQUALS: return subject_len == value_len && !zq_strncasecmp(subject, value, value_len);
	case STARTS_WITH: return subject_len >= value_len && !zq_strncasecmp(subject, value, value_len);
	case ENDS_WITH:
		return subject_len >= value_len && !zq_strncasecmp(subject + subject_len - value_len, value, value_len);
	case CONTAINS: return zq_strcasestr(subject, value) != NULL;
	case MATCHES_REGEX: return zq_regex_matches(subject, value);
	default: return 0;
	}
}

static int method_holds(int code, const char *method)
{
	static const char *const methods[] = {NULL, "GET", "POST", "PUT", "DELETE", "HEAD"};
	if (code == 0) {
		return 1;
	}
	return code > 0 && code < (int)(sizeof(methods) / sizeof(methods[0])) && method && !strcmp(method, methods[code]);
}

static int param_holds(const cJSON *condition, const zq_naming_request *request)
{
	if (!is_type(condition, cJSON_Object)) {
		return 0;
	}
	cJSON *at = condition->child;
	const cJSON *type = next_key(&at, "type", cJSON_Number);
	const cJSON *name = type ? next_key(&at, "name", cJSON_String) : NULL;
	const cJSON *match = name ? next_key(&at, "match", cJSON_Number) : NULL;
	const cJSON *value = match ? next_key(&at, "value", cJSON_String) : NULL;
	if (!value || !name->valuestring || type->valueint < ZQ_FROM_QUERY || type->valueint > ZQ_FROM_FORM) {
		return 0;
	}
	const char *subject = request->value(request->context, (enum zq_naming_source)type->valueint, name->valuestring);
	return operator_holds(match->valueint, subject, value->valuestring);
}

int matched(const struct cJSON *condition, const struct zq_naming_request *request)
{
	cJSON *at = condition->child;
	const cJSON *method = next_key(&at, "method", cJSON_Number);
	const cJSON *match = method ? next_key(&at, "match", cJSON_Number) : NULL;
	const cJSON *value = match ? next_key(&at, "value", cJSON_String) : NULL;
	if (!value || !method_holds(method->valueint, request->method) ||
		!operator_holds(match->valueint, request->url, value->valuestring)) {
		return 0;
	}
	if (!at) {
		return 1;
	}
	const cJSON *params = next_key(&at, "params", cJSON_Array);
	if (!params) {
		return 0;
	}
	for (const cJSON *param = params->child; param; param = param->next) {
		if (!param_holds(param, request)) {
			return 0;
		}
	}
	return 1;
}

/* ---- composing the name ---- */

/* Start of the next segment at or after `at`, with its length; null at the end. */
static const char *next_segment(const char *at, size_t *len)
{
	at += strspn(at, "/");
	*len = strcspn(at, "/");
	return *len ? at : NULL;
}

static long count_segments(const char *url)
{
	size_t len;
	long count = 0;
	for (const char *at = next_segment(url, &len); at; at = next_segment(at + len, &len)) {
		count++;
	}
	return count;
}

/* Appends segments `first` to `last`, counted from 1, as far as they exist, with `*separator` before each. */
static void append_segments(FILE *out, const char *url, long first, long last, const char **separator)
{
	size_t len;
	long number = 1;
	for (const char *at = next_segment(url, &len); at && number <= last; at = next_segment(at + len, &len), number++) {
		if (number >= first) {
			fputs(*separator, out);
			fwrite(at, 1, len, out);
			*separator = "%2F";
		}
	}
}

/* "3,1" lists segments; "2" takes the first two, "-2" the last two. */
static void append_url_parts(FILE *out, char *selection, const char *url)
{
	const char *separator = "";
	long count = count_segments(url);
	if (!strchr(selection, ',')) {
		long number = strtol(selection, NULL, 10);
		long first = number > 0 ? 1 : count + number + 1;
		append_segments(out, url, first, number > 0 ? number : count, &separator);
		return;
	}
	char *rest = NULL;
	for (char *item = strtok_r(selection, ",", &rest); item; item = strtok_r(NULL, ",", &rest)) {
		long number = strtol(item, NULL, 10);
		if (number >= 1 && number <= count) {
			append_segments(out, url, number, number, &separator);
		}
	}
}

static void append_params(
	FILE *out, char *names, enum zq_naming_source source, const zq_naming_request *request, const char **separator)
{
	char *rest = NULL;
	for (char *name = strtok_r(names, ",", &rest); name; name = strtok_r(NULL, ",", &rest)) {
		const char *value = request->value(request->context, source, name);
		if (value) {
			fprintf(out, "%s%s=%.*s", *separator, name, (int)ZQ_CAPTURED_VALUE_SIZE, value);
			*separator = "&";
		}
	}
}

/* What `split` asks for, whatever the order of its keys. */
struct name_parts {
	char *uri;
	char *params[ZQ_FROM_COOKIE + 1]; /* by zq_naming_source */
	int method;
};

static void read_split(struct name_parts *parts, const cJSON *split)
{
	struct {
		const char *key;
		char **text;
	} texts[] = {
		{"uri", &parts->uri},
		{"urlParams", &parts->params[ZQ_FROM_QUERY]},
		{"headerParams", &parts->params[ZQ_FROM_HEADER]},
		{"bodyParams", &parts->params[ZQ_FROM_FORM]},
		{"cookieParams", &parts->params[ZQ_FROM_COOKIE]},
	};
	for (const cJSON *item = split->child; item; item = item->next) {
		if (!item->string) {
			continue;
		}
		if (is_type(item, cJSON_True) && !strcmp(item->string, "method")) {
			parts->method = 1;
		}
		for (auto &text : texts) {
			if (is_type(item, cJSON_String) && !strcmp(item->string, text.key)) {
				*text.text = item->valuestring;
			}
		}
	}
}

char *naming(const char *name, struct cJSON *split, const struct zq_naming_request *request)
{
	zq_written name_text;
	FILE *out = zq_open_written(&name_text);
	if (!out) {
		return NULL;
	}
	struct name_parts parts = {};
	read_split(&parts, split);
	fprintf(out, "WebAction/%s/", name);
	if (parts.uri) {
		append_url_parts(out, parts.uri, request->url);
	}
	const char *separator = "?";
	for (int source = ZQ_FROM_QUERY; source <= ZQ_FROM_COOKIE; source++) {
		if (parts.params[source]) {
			append_params(out, parts.params[source], (enum zq_naming_source)source, request, &separator);
		}
	}
	if (parts.method && request->method) {
		fprintf(out, " (%s)", request->method);
	}
	if (fclose(out) != 0) {
		free(name_text.text);
		return NULL;
	}
	if (name_text.len > ZQ_NAME_SIZE) {
		name_text.text[ZQ_NAME_SIZE] = '\0';
	}
	return name_text.text;
}

char *get_name_by_rule(struct cJSON *rule, const struct zq_naming_request *request)
{
	cJSON *at = is_type(rule, cJSON_Object) ? rule->child : NULL;
	const cJSON *name = next_key(&at, "name", cJSON_String);
	const cJSON *match = name ? next_key(&at, "match", cJSON_Object) : NULL;
	if (!match || !matched(match, request)) {
		return NULL;
	}
	cJSON *split = next_key(&at, "split", cJSON_Object);
	return split ? naming(name->valuestring, split, request) : NULL;
}

char *get_name_by_rules(const char *rules, const struct zq_naming_request *request, const char **invalid_at)
{
	if (!rules || !*rules || !strcmp(rules, "[]") || !request->url) {
		return NULL;
	}
	/* an end position of our own: the library's error pointer is shared by all threads */
	const char *end = NULL;
	cJSON *root = cJSON_ParseWithOpts(rules, &end, 0);
	if (!root) {
		*invalid_at = end ? end : rules;
		return NULL;
	}
	char *name = NULL;
	for (cJSON *rule = is_type(root, cJSON_Array) ? root->child : NULL; rule && !name; rule = rule->next) {
		name = get_name_by_rule(rule, request);
	}
	cJSON_Delete(root);
	return name;
}

static void visit_patterns(const cJSON *item, void (*visit)(void *context, const char *pattern), void *context)
{
	const cJSON *match = NULL, *value = NULL;
	for (const cJSON *child = item->child; child; child = child->next) {
		if (child->string && is_type(child, cJSON_Number) && !strcmp(child->string, "match")) {
			match = child;
		} else if (child->string && is_type(child, cJSON_String) && !strcmp(child->string, "value")) {
			value = child;
		}
		visit_patterns(child, visit, context);
	}
	if (match && value && match->valueint == MATCHES_REGEX) {
		visit(context, value->valuestring);
	}
}

void zq_each_rule_pattern(const char *rules, void (*visit)(void *context, const char *pattern), void *context)
{
	const char *end = NULL;
	cJSON *root = rules ? cJSON_ParseWithOpts(rules, &end, 0) : NULL;
	if (root) {
		visit_patterns(root, visit, context);
		cJSON_Delete(root);
	}
}
