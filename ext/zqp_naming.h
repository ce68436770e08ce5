/* How an action gets its name. */
#ifndef ZQP_NAMING_H
#define ZQP_NAMING_H

#include "zqp_helper.h"
#include "zqp_naming_rules.h"

enum zq_name_level {
	ZQ_NAME_NONE = 0,
	ZQ_NAME_URI = 2,
	ZQ_NAME_CONTROLLER = 3,
	ZQ_NAME_FROZEN = 204,
	ZQ_NAME_APPLICATION = 255
};

/* Gives the request its first name: from the rules, the URI or the script. Sets action_name and action_name_level. */
void init_action_name(TSRMLS_D);
/* Gives the request another name: `name` is request memory and given away, cut to ZQ_NAME_SIZE bytes; who may replace
 * whose name is the caller's affair. */
void zq_set_action_name(char *name, int level TSRMLS_DC);
/* Appends a path: leading "/" dropped, "/" as "%2F", runs of two or more digits as "*"; "index" when nothing remains.
 */
void zq_append_action(smart_str *action, const char *str);
/* The suffix of captured parameters for `uri` by `config`, a list of "<path>,<GET keys>,<POST keys>,<header names>"
 * separated by "|"; its length, with the text in `*results` (the caller's); 0 and null when nothing applies. */
int get_request_params(char **results, const char *uri, int uri_len, const char *config TSRMLS_DC);

#endif
