/* What later versions of PHP refuse or read otherwise, and what PHP 5.6 compiles to the same as other code: it is found
 * in the text of a file alone. Free of the engine. */
#ifndef ZQP_RADAR_TEXT_H
#define ZQP_RADAR_TEXT_H

#include <string_view>

/* Which tags begin code beside `<?php` and `<?=`: the settings short_open_tag and asp_tags. */
struct zq_radar_tags {
	bool is_short, is_asp;
};

/* Takes what was found: the name of a rule for constructs (ZQ_SIGN_SYNTAX), which lives as long as the process, and the
 * line, from 1 on. */
typedef void (*zq_radar_found)(void *context, std::string_view name, unsigned line);

/* Reads the text of a file once and calls `found` for each construct, in their order. Of a text that does not compile,
 * or that is nested too deep, it finds what it can. */
void zq_radar_read_text(std::string_view text, zq_radar_tags tags, zq_radar_found found, void *context);

#endif
