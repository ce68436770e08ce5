/* The items of the details record, one list for the agent that writes and the daemon that reads them; free of the
 * engine. A figure is 8 bytes in the host's order; bodies of the others are in docs/protocol.md, which a unit test
 * compares. A figure's field and name in the daemon are a row in daemon/facts/details.h, which does not compile without
 * one for each.
 */
#ifndef ZQP_DETAILS_ITEMS_H
#define ZQP_DETAILS_ITEMS_H

#include <cstdint>

#define ZQ_DETAILS_ITEMS(FIGURE, OTHER) \
	FIGURE(DURATION_US, 0x01)           \
	FIGURE(DATABASE_US, 0x02)           \
	FIGURE(CACHES_US, 0x03)             \
	FIGURE(SERVICES_US, 0x04)           \
	FIGURE(WAITED_US, 0x05)             \
	FIGURE(STATEMENTS, 0x06)            \
	FIGURE(CACHE_OPERATIONS, 0x07)      \
	FIGURE(SERVICES, 0x08)              \
	FIGURE(USER_US, 0x09)               \
	FIGURE(SYSTEM_US, 0x0A)             \
	FIGURE(PEAK_MEMORY, 0x0B)           \
	FIGURE(OUTPUT_BYTES, 0x0C)          \
	FIGURE(EXIT_STATUS, 0x0D)           \
	OTHER(PATH, 0x10)                   \
	OTHER(METHOD, 0x11)                 \
	OTHER(HOST, 0x12)                   \
	OTHER(SCRIPT, 0x13)                 \
	OTHER(PLACE, 0x20)                  \
	OTHER(RUNS, 0x21)                   \
	OTHER(CALLER, 0x22)                 \
	OTHER(ERROR_CLASS, 0x30)            \
	OTHER(ERROR_MESSAGE, 0x31)          \
	OTHER(COMPONENT, 0x32)              \
	OTHER(TRACE_TEXT, 0x33)             \
	OTHER(CALL_MESSAGE, 0x34)           \
	OTHER(FRAME, 0x35)                  \
	OTHER(TRACE_CONTEXT, 0x40)          \
	OTHER(CALL_SPAN, 0x41)

enum zq_details_item : uint8_t {
#define ITEM(name, number) ZQ_ITEM_##name = (number),
	ZQ_DETAILS_ITEMS(ITEM, ITEM)
#undef ITEM
};

#endif
