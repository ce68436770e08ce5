// Requests in flight that nobody has sent.
#include "sample/sample_now.h"

#include "base/clock.h"
#include "print/report.h"
#include "print/report_now.h"

#include <nlohmann/json.hpp>
#include <cstring>

namespace quorbit {

namespace {

constexpr const char *product = "SELECT * FROM products WHERE id = ?",
					 *reviews = "SELECT avg(stars) FROM reviews WHERE product = ?";

constexpr int64_t up_us = 3600 * int64_t{1000000}; // any time will do that is later than all requests' beginnings

// `runs`: the last of the calls does; the others took 3 ms each, right before it.
BoardSlot request_of(int process, const char *path, int64_t age_ms, std::vector<BoardCall> calls, bool runs)
{
	BoardSlot slot;
	slot.process = slot.thread = process;
	slot.open = true;
	slot.application = process < 2200 ? "Shop" : "Stock";
	slot.method = "GET";
	slot.path = path;
	slot.function = "Application::run";
	slot.read_us = up_us;
	slot.begin_us = up_us - age_ms * 1000;
	slot.begin_ms = wall_clock_ms() - age_ms;
	int64_t at_us = slot.begin_us;
	for (BoardCall &call : calls) {
		call.begin_us = at_us += 4000;
		call.duration_us = 3000;
		slot.counts[call.kind]++;
	}
	slot.calls = static_cast<int64_t>(calls.size());
	if (runs) {
		calls.back().duration_us = -1;
		slot.current = calls.size() - 1;
	}
	slot.last = std::move(calls);
	return slot;
}

BoardCall call_of(zq_board_kind kind, const char *text)
{
	return {kind, text, text[strlen(text) - 1] == '?'};
}

} // namespace

std::string sample_now()
{
	Now now;
	const BoardCall get = call_of(ZQ_BOARD_CACHE, "get"), one = call_of(ZQ_BOARD_SQL, product),
					stars = call_of(ZQ_BOARD_SQL, reviews),
					stock = call_of(ZQ_BOARD_HTTP, "http://stock.internal/reserve.php");
	now.open = {request_of(2101, "/checkout", 12300, {get, one, one, stock}, true),
		request_of(2104, "/products", 310, {get, one, stars, stars, stars}, true),
		request_of(2102, "/products", 42, {get, one}, false), request_of(2201, "/item/17", 18, {one}, true)};
	now.pools = {{"FPM", "shop", 612, false, 3, 3, 0}, {"FPM", "stock", 612, false, 1, 2, 0},
		{"FPM", "jobs", 612, false, 0, 2, 0}};
	return json_text(now_json(now), false);
}

} // namespace quorbit
