// Questions as ClickHouse's SQL. What was sent twice is there twice until the server has merged it: every question
// looks at one of those rows.
#include "store/clickhouse_reader.h"

#include "facts/share.h"
#include "store/clickhouse_sums.h"
#include "store/fleet_layout.h"
#include "store/row_binary.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>

namespace quorbit {

namespace {

constexpr std::chrono::seconds most_time(60);
constexpr size_t most_answer = size_t{1} << 30; // sums of many hosts and days, in one answer
constexpr int64_t page_rows = 2000;
constexpr int64_t most_figure = int64_t{1} << 50; // of an action; milliseconds become microseconds

#define DURATION "ifNull(duration_us, duration_ms * 1000)"

// A glob as SQLite has them (*, ?, [...]) as an expression of RE2's that fits the same texts.
std::string expression_of(const std::string &glob)
{
	std::string out = "(?s)^";
	for (size_t i = 0; i < glob.size(); i++) {
		const char c = glob[i];
		const size_t first = i + 1 + (i + 1 < glob.size() && glob[i + 1] == '^');
		const size_t end =
			c == '[' ? glob.find(']', first + 1) : std::string::npos; // "]" in the first place is one of them
		if (c == '*') {
			out += ".*";
		} else if (c == '?') {
			out += ".";
		} else if (end != std::string::npos) {
			out += first > i + 1 ? "[^" : "[";
			for (size_t at = first; at < end; at++) {
				if (strchr("\\[]^", glob[at])) out += '\\';
				out += glob[at];
			}
			out += "]";
			i = end;
		} else {
			if (strchr("\\.+^$()|{}[]", c)) out += '\\';
			out += c;
		}
	}
	return out + "$";
}

std::string conditions_of(const ActionFilter &filter)
{
	std::string sql = " WHERE id > " + std::to_string(filter.after_id);
	auto add = [&sql](bool given, const std::string &condition) {
		if (given) sql += " AND " + condition;
	};
	sql += days_condition(filter.range) + host_condition(filter.host);
	add(true, "received_ms >= " + std::to_string(filter.range.from_ms));
	add(true, "received_ms < " + std::to_string(filter.range.until_ms));
	add(!filter.application.empty(), "application = " + quoted(filter.application));
	add(!filter.name_glob.empty(), "match(name, " + quoted(expression_of(filter.name_glob)) + ")");
	// A path that the packet did not have fits none.
	add(!filter.path_glob.empty(), "path != '' AND match(path, " + quoted(expression_of(filter.path_glob)) + ")");
	add(filter.errors, "error");
	add(filter.least_us > 0, DURATION " >= " + std::to_string(filter.least_us));
	add(filter.below_us != INT64_MAX, DURATION " < " + std::to_string(filter.below_us));
	return sql;
}

std::string row_columns()
{
	std::string names = "toInt64(id), host";
	for (const ActionColumn &column : action_columns) names += std::string(", ") + column.name;
	return names;
}

ActionRow read_row(RowReader &from)
{
	ActionRow row;
	row.id = from.number<int64_t>();
	row.host = from.text();
	for (const ActionColumn &column : action_columns) {
		if (auto number = std::get_if<int64_t ActionRow::*>(&column.field)) {
			row.**number = std::clamp(from.number<int64_t>(), -most_figure, most_figure);
		} else if (auto flag = std::get_if<bool ActionRow::*>(&column.field)) {
			row.**flag = from.number<uint8_t>() != 0;
		} else if (auto text = std::get_if<std::string ActionRow::*>(&column.field)) {
			row.**text = from.text();
		} else if (auto figure = from.nullable()) {
			if (!row.exact) row.exact.emplace();
			(*row.exact).*std::get<int64_t ExactFigures::*>(column.field) =
				std::clamp(*figure, -most_figure, most_figure);
		}
	}
	return row;
}

class ClickHouseReader : public Reader {
public:
	explicit ClickHouseReader(const StoreUrl &url)
		: server_(url, most_time, nullptr, most_answer), identity_(fleet_identity(server_))
	{
	}

	void each_action(const ActionQuestion &question, const std::function<void(const ActionRow &)> &on_row) override
	{
		const bool slowest = question.order == ActionOrder::slowest, oldest = question.order == ActionOrder::oldest;
		const std::string by = slowest ? DURATION : "received_ms", order = by + (oldest ? ", id" : " DESC, id DESC");
		std::string rest; // what is beyond the last page
		int64_t left = question.most, last_id = 0;
		for (bool more = true; more && left > 0;) {
			const int64_t most = std::min(left, page_rows);
			const auto rows = !slowest && !oldest && rest.empty() ? newest_rows(question.filter, order, most)
																  : list(question.filter, rest, order, most);
			const int64_t before = left;
			for (const ActionRow &row : rows) {
				if (row.id == last_id) continue; // sent twice
				last_id = row.id;
				left--;
				on_row(row);
			}
			// Each full page has something that the one before had not.
			more = static_cast<int64_t>(rows.size()) == most && left < before;
			if (!more) return;
			const int64_t last = slowest ? rows.back().duration_us() : rows.back().received_ms;
			rest = " AND (" + by + ", id)";
			rest.append(oldest ? " > (" : " < (").append(std::to_string(last)).append(", ");
			rest.append(std::to_string(last_id)).append(")");
		}
	}

	StorePosition position() override
	{
		const std::string answer = server_.ask("SELECT toInt64(max(id)) FROM action FORMAT RowBinary");
		return {identity_, answer.empty() ? 0 : RowReader(answer).number<int64_t>()};
	}

	std::optional<StoredAction> action(int64_t id) override
	{
		const std::string answer = server_.ask(
			"SELECT " + row_columns() + ", packet FROM action WHERE " + one(id) + " LIMIT 1 FORMAT RowBinary");
		if (answer.empty()) return std::nullopt;
		RowReader from(answer);
		ActionRow row = read_row(from);
		auto action = read_action(std::string(from.text()));
		if (!action) throw std::runtime_error("the packet of action " + std::to_string(id) + " is damaged");
		return StoredAction{std::move(row), std::move(*action)};
	}

	void each_related(
		const RelatedQuestion &question, const std::function<void(const StoredAction &)> &on_action) override
	{
		std::vector<int64_t> seen = {question.id};
		int64_t bytes_left = question.most_bytes;
		const std::string days = days_around(question.id);
		auto collect = [&](const char *column, const std::string &value) {
			if (value.empty()) return;
			const std::string answer =
				server_.ask("SELECT toInt64(id), toInt64(length(packet)) FROM action WHERE " + std::string(column) +
					" = " + quoted(value.substr(0, 1024)) + days + " ORDER BY received_ms, id LIMIT 1 BY id LIMIT " +
					std::to_string(question.most + 1) + " FORMAT RowBinary");
			for (RowReader row(answer); !row.is_at_end();) {
				const auto id = row.number<int64_t>(), bytes = row.number<int64_t>();
				if (static_cast<int64_t>(seen.size()) > question.most) return;
				if (std::find(seen.begin(), seen.end(), id) != seen.end()) continue;
				if (bytes < 0 || bytes > bytes_left) return;
				bytes_left -= bytes;
				auto related = action(id);
				if (!related) continue; // dropped since
				seen.push_back(id);
				on_action(*related);
			}
		};
		collect("transaction_id", question.transaction_id);
		for (const std::string &tracer_id : question.tracer_ids) collect("tracer_id", tracer_id);
	}

	SumAnswer sums(const SumQuestion &question) override { return answer_sums(sums_, question); }
	std::vector<SeriesPoint> series(const SeriesQuestion &question) override { return answer_series(sums_, question); }

	std::optional<KeyFacts> key(SumKey key, int64_t id) override
	{
		auto found = sums_.keys({id});
		if (found.empty()) return std::nullopt;
		KeyFacts &facts = found.begin()->second;
		// The number is made of the kind.
		if (fleet_key_id(static_cast<int64_t>(kind_of(key)), facts.application, facts.name) != id) return std::nullopt;
		return std::move(facts);
	}

	std::vector<MachineRow> machine(const MachineQuestion &question) override
	{
		const int64_t step_ms = std::max(floor_to(question.step_ms, minute_ms), minute_ms);
		const int64_t from = std::max(question.range.from_ms, int64_t{0}) / minute_ms;
		const int64_t until = question.range.until_ms / minute_ms + 1;
		const std::string step = std::to_string(step_ms);
		const std::string answer = server_.ask("SELECT its_host, toInt64(intDiv(minute * 60000, " + step + ") * " +
			step +
			") AS at, pool, toInt64(sum(last)), "
			"sum(a), sum(b), sum(c), sum(d), sum(e), max(f), sum(g), max(h) FROM (SELECT minute, source, any(host) AS "
			"its_host, pool, "
			"max(samples) AS last, argMax(load_milli, samples) AS a, argMax(memory_bytes, samples) AS b, "
			"argMax(available_bytes, samples) AS c, argMax(busy, samples) AS d, argMax(idle, samples) AS e, "
			"argMax(most_busy, samples) AS f, argMax(waiting, samples) AS g, argMax(most_waiting, samples) AS h "
			"FROM machine WHERE minute >= " +
			std::to_string(from) + " AND minute < " + std::to_string(until) + days_condition(question.range) +
			host_condition(question.host) +
			" GROUP BY minute, source, pool) GROUP BY its_host, at, pool ORDER BY at, its_host, pool FORMAT RowBinary");
		return machine_rows(answer);
	}

	std::vector<ReleaseRow> releases(const std::string &application) override
	{
		const std::string answer = server_.ask(std::string("SELECT at_ms, name, application FROM release ") +
			(application.empty() ? "" : "WHERE application IN ('', " + quoted(application) + ") ") +
			"GROUP BY at_ms, name, application ORDER BY at_ms, min(id) FORMAT RowBinary");
		std::vector<ReleaseRow> rows;
		for (RowReader row(answer); !row.is_at_end();) {
			ReleaseRow &release = rows.emplace_back();
			release.at_ms = row.number<int64_t>();
			release.name = row.text();
			release.application = row.text();
		}
		return rows;
	}

	std::vector<DroppedRow> dropped(const TimeRange &range, const std::string &application) override
	{
		std::string which = "WHERE minute_ms > " + std::to_string(range.from_ms - minute_ms) + " AND minute_ms < " +
			std::to_string(range.until_ms);
		if (!application.empty()) which += " AND application = " + quoted(application);
		const std::string answer = server_.ask(
			"SELECT application, reason, toInt64(sum(last)) AS all FROM (SELECT application, reason, max(count) AS "
			"last "
			"FROM dropped " +
			which +
			" GROUP BY minute_ms, source, application, reason) GROUP BY application, reason ORDER BY all DESC "
			"FORMAT RowBinary");
		std::vector<DroppedRow> rows;
		for (RowReader row(answer); !row.is_at_end();) {
			DroppedRow &dropped = rows.emplace_back();
			dropped.application = row.text();
			dropped.reason = row.text();
			dropped.count = row.number<int64_t>();
		}
		return rows;
	}

	// Of each application what the host tells that saw it last, and the packets of all.
	std::vector<ApplicationRow> applications() override
	{
		const std::string answer = server_.ask(
			"SELECT name, argMax(query_ms, seen_ms), argMax(query_process, seen_ms), argMax(sapi, seen_ms), "
			"argMax(php_version, seen_ms), argMax(given, seen_ms), argMax(packet_ms, seen_ms), "
			"argMax(packet_process, seen_ms), max(packets) FROM application GROUP BY name, source "
			"ORDER BY name, max(seen_ms) DESC FORMAT RowBinary");
		std::vector<ApplicationRow> rows;
		for (RowReader row(answer); !row.is_at_end();) {
			ApplicationRow found;
			found.name = row.text();
			found.query_ms = row.number<int64_t>();
			found.query_process = row.number<int64_t>();
			for (std::string *text : {&found.sapi, &found.php_version, &found.given}) *text = row.text();
			for (int64_t *value : {&found.packet_ms, &found.packet_process, &found.packets})
				*value = row.number<int64_t>();
			if (!rows.empty() && rows.back().name == found.name)
				rows.back().packets += found.packets;
			else
				rows.push_back(std::move(found));
		}
		return rows;
	}

	std::vector<std::string> hosts() override
	{
		std::vector<std::string> names;
		const std::string answer = server_.ask("SELECT DISTINCT host FROM source ORDER BY host FORMAT RowBinary");
		for (RowReader row(answer); !row.is_at_end();) names.emplace_back(row.text());
		return names;
	}

	std::vector<SenderRow> senders(const TimeRange &) override { throw not_kept("the processes of each host"); }
	void each_profile_event(const ProfileQuestion &, const std::function<void(const ProfileEvent &)> &) override
	{
		throw not_kept("thread profiles");
	}

private:
	static std::runtime_error not_kept(const std::string &what)
	{
		return std::runtime_error(
			"the store of a fleet does not have " + what + ": ask on the host itself, without --store");
	}

	static std::string one(int64_t id)
	{
		return "source = " + std::to_string(source_of(id)) + " AND id = " + std::to_string(id);
	}

	// The same row may follow itself.
	std::vector<ActionRow> list(
		const ActionFilter &filter, const std::string &more, const std::string &order, int64_t most)
	{
		const std::string answer = server_.ask("SELECT " + row_columns() + " FROM action" + conditions_of(filter) +
			more + " ORDER BY " + order + " LIMIT " + std::to_string(most) + " FORMAT RowBinary");
		std::vector<ActionRow> rows;
		for (RowReader from(answer); !from.is_at_end();) rows.push_back(read_row(from));
		return rows;
	}

	// The newest rows are found within the last day as a rule, which spares reading all others.
	std::vector<ActionRow> newest_rows(const ActionFilter &filter, const std::string &order, int64_t most)
	{
		constexpr int64_t most_days = 64;
		const int64_t end_ms = std::min(filter.range.until_ms, wall_clock_ms() + day_ms);
		for (int64_t days = 1; days < most_days; days *= 4) {
			ActionFilter last = filter;
			last.range.from_ms = std::max(filter.range.from_ms, end_ms - days * day_ms);
			auto rows = list(last, "", order, most);
			if (static_cast<int64_t>(rows.size()) == most || last.range.from_ms == filter.range.from_ms) return rows;
		}
		return list(filter, "", order, most);
	}

	// A transaction lasts no longer than the day before and the day after one of its actions.
	std::string days_around(int64_t id)
	{
		const std::string answer =
			server_.ask("SELECT received_ms FROM action WHERE " + one(id) + " LIMIT 1 FORMAT RowBinary");
		if (answer.empty()) return "";
		const int64_t at_ms = std::clamp(RowReader(answer).number<int64_t>(), day_ms, int64_t{1} << 60);
		return days_condition({at_ms - day_ms, at_ms + day_ms});
	}

	// Of each host and time the row of no pool, which is the machine's, comes first.
	static std::vector<MachineRow> machine_rows(const std::string &answer)
	{
		std::vector<MachineRow> rows;
		double looks = 1;
		for (RowReader from(answer); !from.is_at_end();) {
			const std::string host(from.text());
			const auto at_ms = from.number<int64_t>();
			const std::string pool(from.text());
			int64_t values[9]; // samples, load, memory, available, busy, idle, most busy, waiting, most waiting
			for (int64_t &value : values) value = from.number<int64_t>();
			if (pool.empty()) {
				const int64_t samples = std::max(values[0], int64_t{1});
				looks = static_cast<double>(samples);
				rows.push_back({at_ms, host, static_cast<double>(values[1]) / looks / 1000, values[2] / samples,
					values[3] / samples, {}});
			} else if (!rows.empty()) {
				rows.back().pools.push_back(
					{pool, static_cast<double>(values[4]) / looks, static_cast<double>(values[5]) / looks, values[6],
						static_cast<double>(values[7]) / looks, values[8]});
			}
		}
		return rows;
	}

	ClickHouse server_;
	const int64_t identity_;
	ClickHouseSums sums_{server_};
};

} // namespace

std::unique_ptr<Reader> open_clickhouse_reader(const StoreUrl &url)
{
	return std::make_unique<ClickHouseReader>(url);
}

} // namespace quorbit
