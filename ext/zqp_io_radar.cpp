/* The record of the radar, behind all others: the items that zqp_radar has noted. A packet that they would make too
 * long goes without them, and a later one takes them. */
#include "zqp_io.h"
#include "zqp_radar.h"

void zq_append_radar(smart_str *packet TSRMLS_DC)
{
	size_t len;
	const char *items = zq_radar_items(&len TSRMLS_CC);
	if (len && ZQG(radar_wanted) && packet->len + len < ZQ_MAX_BODY) {
		zq_append_record(packet, ZQ_RE_RADAR, items, len);
		zq_radar_sent(TSRMLS_C);
	}
}
