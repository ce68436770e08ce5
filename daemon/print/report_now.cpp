// Requests in flight as tables and JSON.
#include "print/report_now.h"

#include "base/clock.h"
#include "print/page.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

int64_t age_us(const BoardSlot &slot, int64_t begin_us)
{
	return std::max<int64_t>(slot.read_us - begin_us, 0);
}

std::string call_text(const BoardCall &call)
{
	const std::string text = printable(call.text) + (call.cut ? "…" : "");
	return call.kind == ZQ_BOARD_NOTHING ? text : std::string(name_of(call.kind)) + " " + text;
}

const BoardCall *running(const BoardSlot &slot)
{
	return slot.current ? &slot.last[*slot.current] : nullptr;
}

std::string waits_for(const BoardSlot &slot)
{
	if (const BoardCall *call = running(slot)) return call_text(*call);
	return slot.function.empty() ? "PHP" : "PHP " + printable(slot.function);
}

std::string process_text(const BoardSlot &slot)
{
	const std::string process = std::to_string(slot.process);
	return slot.thread == slot.process ? process : process + "/" + std::to_string(slot.thread);
}

std::string request_text(const BoardSlot &slot)
{
	return printable(slot.method.empty() ? slot.path : slot.method + " " + slot.path);
}

Json call_json(const BoardSlot &slot, const BoardCall &call)
{
	const bool runs = call.duration_us < 0;
	return {{"kind", name_of(call.kind)}, {"text", text_of_bytes(call.text)}, {"cut", call.cut},
		{"duration_us", runs ? age_us(slot, call.begin_us) : call.duration_us}, {"runs", runs}};
}

Json counts_json(const BoardSlot &slot)
{
	return {{"calls", slot.calls}, {"sql", slot.counts[ZQ_BOARD_SQL]}, {"cache", slot.counts[ZQ_BOARD_CACHE]},
		{"http", slot.counts[ZQ_BOARD_HTTP]}};
}

std::string pools_text(const std::vector<PoolNow> &pools, size_t width)
{
	std::vector<std::vector<std::string>> rows;
	for (const PoolNow &pool : pools) {
		rows.push_back({pool.server, pool.pool.empty() ? "-" : printable(pool.pool),
			pool.threads ? "threads" : "processes", std::to_string(pool.busy), std::to_string(pool.idle),
			pool.waiting < 0 ? "-" : std::to_string(pool.waiting)});
	}
	if (rows.empty()) return "";
	return "\n" +
		table({{"SERVER"}, {"POOL", false, true}, {"OF ITS"}, {"BUSY", true}, {"IDLE", true}, {"WAITING", true}}, rows,
			width);
}

} // namespace

std::string now_text(const Now &now, size_t width)
{
	const std::vector<Column> columns = {{"AGE", true}, {"PROCESS"}, {"APPLICATION", false, true},
		{"REQUEST", false, true}, {"SQL", true}, {"CACHE", true}, {"HTTP", true}, {"FOR", true},
		{"WAITS FOR", false, true}};
	std::vector<std::vector<std::string>> rows;
	for (const BoardSlot &slot : now.open) {
		const BoardCall *call = running(slot);
		auto count = [&](zq_board_kind kind) { return std::to_string(slot.counts[kind]); };
		rows.push_back({fine_duration_text(age_us(slot, slot.begin_us)), process_text(slot),
			printable(slot.application), request_text(slot), count(ZQ_BOARD_SQL), count(ZQ_BOARD_CACHE),
			count(ZQ_BOARD_HTTP), call ? fine_duration_text(age_us(slot, call->begin_us)) : "", waits_for(slot)});
	}
	const std::string requests = rows.empty() ? "No request is running.\n" : table(columns, rows, width);
	std::string findings;
	for (const std::string &line : now_findings(now)) findings += "\n" + line + "\n";
	return requests + pools_text(now.pools, width) + findings;
}

std::vector<std::string> now_findings(const Now &now)
{
	std::vector<std::string> found;
	for (const PoolNow &pool : now.pools) {
		if (pool.waiting <= 0 || pool.idle > 0) continue;
		const std::string whose = pool.pool.empty() ? pool.server : "pool " + printable(pool.pool);
		found.push_back("All " + std::to_string(pool.busy) + (pool.threads ? " threads" : " processes") + " of " +
			whose + " are busy, and " + std::to_string(pool.waiting) +
			(pool.waiting == 1 ? " connection waits." : " connections wait."));
	}
	return found;
}

std::string slot_text(const BoardSlot &slot, size_t width, bool full)
{
	Page page(width, full);
	page.out = request_text(slot) + "\n";
	page.entry("application", slot.application);
	page.entry("process", process_text(slot));
	page.entry("since", local_time(slot.begin_ms) + ", " + fine_duration_text(age_us(slot, slot.begin_us)));
	page.entry("waits for", waits_for(slot));
	if (!slot.function.empty()) page.entry("function", slot.function);
	std::vector<std::vector<std::string>> rows;
	for (auto call = slot.last.rbegin(); call != slot.last.rend(); ++call) {
		const bool runs = call->duration_us < 0;
		rows.push_back({fine_duration_text(age_us(slot, call->begin_us)) + " ago",
			runs ? "runs" : fine_duration_text(call->duration_us), call_text(*call)});
	}
	if (!rows.empty()) {
		page.section("Last calls");
		const size_t most = rows.size();
		page.rows({{"BEGAN", true}, {"TOOK", true}, {"CALL", false, true}}, std::move(rows), most);
	}
	if (slot.stack.empty()) return page.out;
	page.section("Stack");
	for (std::string_view rest = slot.stack; !rest.empty();) {
		const std::string_view line = rest.substr(0, rest.find('\n'));
		rest.remove_prefix(std::min(rest.size(), line.size() + 1));
		page.out += "  " + printable(line) + "\n";
	}
	return page.out;
}

Json slot_json(const BoardSlot &slot)
{
	Json last = Json::array();
	for (const BoardCall &call : slot.last) last.push_back(call_json(slot, call));
	const BoardCall *call = running(slot);
	return {{"process", slot.process}, {"thread", slot.thread}, {"application", text_of_bytes(slot.application)},
		{"method", text_of_bytes(slot.method)}, {"path", text_of_bytes(slot.path)},
		{"action", text_of_bytes(slot.action)}, {"started", utc_time(slot.begin_ms)},
		{"age_us", age_us(slot, slot.begin_us)}, {"function", text_of_bytes(slot.function)},
		{"waits_for", call ? call_json(slot, *call) : Json()}, {"counts", counts_json(slot)}, {"last", std::move(last)},
		{"stack", text_of_bytes(slot.stack)}};
}

Json now_json(const Now &now)
{
	Json requests = Json::array(), pools = Json::array();
	for (const BoardSlot &slot : now.open) requests.push_back(slot_json(slot));
	for (const PoolNow &pool : now.pools) {
		pools.push_back({{"server", pool.server}, {"pool", pool.pool},
			{"manager", pool.manager ? Json(pool.manager) : Json()}, {"threads", pool.threads}, {"busy", pool.busy},
			{"idle", pool.idle}, {"waiting", pool.waiting < 0 ? Json() : Json(pool.waiting)}});
	}
	return {{"requests", std::move(requests)}, {"pools", std::move(pools)}, {"findings", now_findings(now)}};
}

} // namespace quorbit
