/* How a URI becomes an action's name. Free of the engine, so that names can also be tried outside a request.
 *
 * A buffer is any type that has zq_append(Buffer *, const char *, size_t), zq_view(const Buffer *) and
 * zq_release(Buffer *), and is empty when value-initialised. A request's parameters are any type that has
 *   find(source, name)     what the request has under that name, as something that is false when it has nothing
 *   append(buffer, found)  its first ZQ_CAPTURED_VALUE_SIZE bytes: a JSON string's body, without the quotes */
#ifndef ZQP_NAMING_URI_H
#define ZQP_NAMING_URI_H

#include <string_view>

#include "zqp_naming_rules.h"
#include "zqp_text.h"

/* Appends a path: leading "/" dropped, "/" as "%2F", runs of two or more digits as "*"; "index" when nothing remains.
 */
template <typename Buffer>
void zq_append_clean_path(Buffer *name, std::string_view path)
{
	size_t at = !path.empty() && path[0] == '/';
	if (at == path.size()) {
		zq_append(name, "index", 5);
	}
	while (at < path.size()) {
		size_t special = path.find_first_of("/0123456789", at);
		size_t plain_end = special < path.size() ? special : path.size();
		zq_append(name, path.data() + at, plain_end - at);
		at = plain_end;
		if (at < path.size() && path[at] == '/') {
			zq_append(name, "%2F", 3);
			at++;
			continue;
		}
		size_t digits = 0;
		while (at + digits < path.size() && path[at + digits] >= '0' && path[at + digits] <= '9') {
			digits++;
		}
		zq_append(name, digits > 1 ? "*" : path.data() + at, digits > 0);
		at += digits;
	}
}

/* Where a process that takes paths for URIs has given names to as many as it may. */
#define ZQ_MORE_PATHS "WebAction/URI/(more paths)"

/* The value of two hexadecimal digits, -1 for anything else. */
static inline int zq_hex_byte(const char *digits)
{
	int value = 0;
	for (int i = 0; i < 2; i++) {
		char ch = zq_ascii_lower(digits[i]);
		int digit = ch >= '0' && ch <= '9' ? ch - '0' : ch >= 'a' && ch <= 'f' ? ch - 'a' + 10 : -1;
		if (digit < 0) {
			return -1;
		}
		value = value * 16 + digit;
	}
	return value;
}

/* The path of a request target as web servers hand it on: without scheme, host and query, decoded except "%00" and
 * "%2F", repeated slashes as one, "." and ".." resolved. Ends with a NUL in `path`, which has room for two bytes more
 * than `target` is long. */
static inline void zq_clean_request_path(const char *target, char *path)
{
	const char *host = target[0] == '/' ? NULL : strstr(target, "://");
	if (host && host < target + strcspn(target, "?")) {
		target = host + 3 + strcspn(host + 3, "/?");
	}
	char *end = path;
	*end++ = '/';
	char *segment = end; /* where the last one begins */
	for (;; target++) {
		int byte = *target == '%' ? zq_hex_byte(target + 1) : -1;
		int ends = !*target || *target == '?' || *target == '/';
		if (ends) {
			size_t len = (size_t)(end - segment);
			if (len == 1 && segment[0] == '.') {
				end = segment;
			} else if (len == 2 && segment[0] == '.' && segment[1] == '.') {
				end = segment;
				while (end > path + 1 && (end == segment || end[-1] != '/')) {
					end--;
				}
			} else if (len && *target == '/') {
				*end++ = '/';
			}
			segment = end;
			if (*target != '/') {
				break;
			}
		} else if (byte > 0 && byte != '/') {
			*end++ = (char)byte;
			target += 2;
		} else {
			*end++ = *target;
		}
	}
	*end = '\0';
}

/* ---- captured parameters ---- */

/* Appends "?name=value&..." of the names in `groups`: of the query, the form and the headers, in that order. */
template <typename Buffer, typename Params>
void zq_append_captured_groups(Buffer *suffix, std::string_view groups, Params params)
{
	static const zq_naming_source sources[] = {ZQ_FROM_QUERY, ZQ_FROM_FORM, ZQ_FROM_HEADER};
	const char *separator = "?";
	for (zq_naming_source source : sources) {
		std::string_view names, name;
		if (!zq_next_piece(&groups, ",", &names)) {
			return;
		}
		while (zq_next_piece(&names, " &[]", &name)) {
			auto found = params.find(source, name);
			if (found) {
				zq_append(suffix, separator, 1);
				zq_append(suffix, name.data(), name.size());
				zq_append(suffix, "=", 1);
				params.append(suffix, found);
				separator = "&";
			}
		}
	}
}

/* The same by `config`, a list of "<path>,<GET keys>,<POST keys>,<header names>" separated by "|": the first entry
 * whose path is `uri` counts. Appends nothing when there is none. */
template <typename Buffer, typename Params>
void zq_append_captured(Buffer *suffix, const char *config, std::string_view uri, Params params)
{
	std::string_view rest = config, entry;
	while (zq_next_piece(&rest, "|", &entry)) {
		if (entry.size() > uri.size() && entry[uri.size()] == ',' && !memcmp(entry.data(), uri.data(), uri.size())) {
			entry.remove_prefix(uri.size() + 1);
			zq_append_captured_groups(suffix, entry, params);
			return;
		}
	}
}

/* ---- the name ---- */

struct zq_uri_naming {
	const char *uri;
	int automatic;        /* the script names the action: the URI up to ".php", else the file that the server runs */
	const char *script;   /* that file; null or "": unknown */
	const char *captured; /* the list above, or null */
};

/* Appends the name that a request has when no rule gives one: "WebAction/URI/..." or "WebAction/PHP/...". The caller
 * cuts it to ZQ_NAME_SIZE. */
template <typename Buffer, typename Params>
void zq_append_uri_name(Buffer *name, const zq_uri_naming &naming, Params params)
{
	const char *script_end = naming.automatic ? zq_php_pos(naming.uri, (int)strlen(naming.uri)) : NULL;
	if (naming.automatic && !script_end && naming.script && *naming.script) {
		zq_append(name, "WebAction/PHP/", strlen("WebAction/PHP/"));
		zq_append_clean_path(name, naming.script);
		return;
	}
	zq_append(name, "WebAction/URI/", strlen("WebAction/URI/"));
	if (naming.automatic && !script_end) {
		zq_append_clean_path(name, naming.uri); /* with its query */
		return;
	}
	size_t len = script_end ? (size_t)(script_end - naming.uri) : strcspn(naming.uri, "?");
	Buffer path = {};
	zq_append(&path, naming.uri, len);
	if (naming.captured) {
		zq_append_captured(&path, naming.captured, std::string_view(naming.uri, len), params);
	}
	zq_append_clean_path(name, zq_view(&path));
	zq_release(&path);
}

#endif
