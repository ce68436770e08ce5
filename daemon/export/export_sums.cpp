// Sums, their keys and the small tables.
#include "export/export_rows.h"

#include "base/clock.h"
#include "facts/keys.h"
#include "store/fleet_layout.h"

#include <algorithm>
#include <unordered_map>

namespace quorbit {

namespace {

constexpr int64_t page_rows = 2000; // read at once

// The two tables of sums by kind, time and key.
struct SumTable {
	const char *name;
	int64_t unit_ms;
	const char *page; // of a kind, beyond a time and key
};
constexpr SumTable sum_tables[] = {
	{"sum_minute", minute_ms,
		"SELECT minute, key, sums FROM sum_minute WHERE kind = ?1 AND (minute, key) > (?2, ?3) "
		"ORDER BY minute, key LIMIT ?4"},
	{"sum_hour", hour_ms,
		"SELECT hour, key, sums FROM sum_hour WHERE kind = ?1 AND (hour, key) > (?2, ?3) ORDER BY hour, key LIMIT ?4"},
};

class SumExport {
public:
	SumExport(FollowedStore &store, const ExportSource &source, Inserts &inserts, const ExportState &state)
		: store_(store), source_(source), inserts_(inserts), state_(state)
	{
	}

	void add_all()
	{
		moved_ = state_;
		moved_.tables_ms = wall_clock_ms() - minute_ms; // what is of the last minute may not be stored yet
		int64_t from_ms, newest_minute;
		const int64_t summed = until(from_ms, newest_minute);
		if (summed > state_.summed_id) {
			for (const SumTable &table : sum_tables) {
				for (int64_t kind = 1; kind < static_cast<int64_t>(key_kinds); kind++)
					add_table(table, kind, from_ms / table.unit_ms);
			}
			add_uses(from_ms / hour_ms);
		}
		add_machine();
		add_dropped();
		add_releases();
		add_applications();
		moved_.summed_id = summed;
		moved_.minute = std::max(newest_minute, state_.minute);
	}

	const ExportState &moved() const { return moved_; }

private:
	// Up to which action there are sums, and the time from which on any of them can have changed: that of the earliest
	// action since, or of the latest sums that were sent, after which all are new.
	int64_t until(int64_t &from_ms, int64_t &newest_minute)
	{
		Database &database = store_.current();
		const int64_t summed = database.integer("SELECT value FROM counter WHERE name = 'summed'");
		newest_minute = database.integer("SELECT max(minute) FROM sum_minute WHERE kind = 1");
		from_ms = state_.minute * minute_ms;
		Statement earliest(database, "SELECT min(received_ms) FROM action WHERE id > ? AND id <= ?");
		if (earliest.bind(1, state_.summed_id).bind(2, summed).step() && !earliest.is_null(0))
			from_ms = std::min(from_ms, earliest.integer(0));
		return summed;
	}

	RowWriter row(std::optional<int64_t> wall_ms = std::nullopt)
	{
		RowWriter row;
		if (wall_ms) row.number(day_of(*wall_ms));
		row.number(static_cast<uint32_t>(source_.number));
		row.text(source_.host);
		return row;
	}

	struct Found {
		int64_t kind, time, key, action; // of a key alone no action
		std::string sums;
	};

	void add_table(const SumTable &table, int64_t kind, int64_t from)
	{
		int64_t time = from, key = -1;
		for (bool more = true; more;) {
			std::vector<Found> page;
			{
				Unstopped reading;
				Statement select(store_.current(), table.page);
				select.bind(1, kind).bind(2, time).bind(3, key).bind(4, page_rows);
				while (select.step()) page.push_back({kind, select.integer(0), select.integer(1), 0, select.text(2)});
			}
			more = static_cast<int64_t>(page.size()) == page_rows;
			if (more) time = page.back().time, key = page.back().key;
			for (const Found &found : page) {
				if (add_row(table.name, table.unit_ms, found)) changed_.insert(found.key);
			}
		}
	}

	// What belongs to two keys has changed where their sums have.
	void add_uses(int64_t from)
	{
		for (int64_t part : changed_) {
			std::vector<Found> uses;
			{
				Unstopped reading;
				Statement select(
					store_.current(), "SELECT kind, hour, action, sums FROM use_hour WHERE part = ? AND hour >= ?");
				select.bind(1, part).bind(2, from);
				while (select.step())
					uses.push_back({select.integer(0), select.integer(1), part, select.integer(2), select.text(3)});
			}
			for (const Found &found : uses) add_row("use_hour", hour_ms, found);
		}
	}

	// Of the store's numbers of actions and keys those of the fleet are made. False for a row that has not changed.
	bool add_row(const char *table, int64_t unit_ms, const Found &found)
	{
		Sums sums;
		std::string_view rest = found.sums;
		if (!sums.add_head(rest) || sums.newest_id <= state_.summed_id || !sums.durations.read(rest)) return false;
		for (int64_t *id : {&sums.slowest_id, &sums.newest_id, &sums.chance_id})
			if (*id) *id = fleet_id(source_.number, *id);
		RowWriter out = row(found.time * unit_ms);
		out.number(static_cast<uint8_t>(found.kind));
		out.number(static_cast<uint32_t>(found.time));
		out.number(key_of(found.key));
		if (found.action) out.number(key_of(found.action));
		out.number(sums.newest_id);
		out.text(sums.bytes());
		inserts_.add(table, out);
		return true;
	}

	// The number of a key, which goes along when it comes for the first time.
	int64_t key_of(int64_t id)
	{
		auto [known, is_new] = keys_.try_emplace(id, 0);
		if (!is_new) return known->second;
		Unstopped reading;
		Statement select(store_.current(),
			"SELECT kind, application, name, vendor, subject, verb, place, finding, suggestion, finding_ms, "
			"error_class, message, first_ms, last_ms, caller FROM sum_key WHERE id = ?");
		if (!select.bind(1, id).step()) return known->second = forgotten_key_id(source_.number, id);
		known->second = fleet_key_id(select.integer(0), select.text(1), select.text(2));
		RowWriter out = row();
		out.number(static_cast<uint8_t>(select.integer(0)));
		out.number(known->second);
		for (int column = 1; column <= 8; column++) out.text(select.text(column));
		out.number(select.integer(9));
		for (int column : {10, 11}) out.text(select.text(column));
		for (int column : {12, 13}) out.number(select.integer(column));
		out.text(select.text(14));
		inserts_.add("sum_key", out);
		return known->second;
	}

	// What a statement finds from a time on, each row as `write` writes it. These tables are small.
	template <typename Write>
	void add_small(const char *table, const std::string &sql, int64_t from, Write write)
	{
		std::vector<RowWriter> rows;
		{
			Unstopped reading;
			Statement select(store_.current(), sql);
			select.bind(1, from);
			while (select.step()) rows.push_back(write(select));
		}
		for (const RowWriter &row : rows) inserts_.add(table, row);
	}

	void add_machine()
	{
		add_small("machine",
			"SELECT minute, pool, samples, load_milli, memory_bytes, available_bytes, busy, idle, most_busy, waiting, "
			"most_waiting FROM machine_minute WHERE minute >= ?",
			state_.tables_ms / minute_ms, [this](Statement &select) {
				RowWriter out = row(select.integer(0) * minute_ms);
				out.number(static_cast<uint32_t>(select.integer(0)));
				out.text(select.text(1));
				for (int column = 2; column <= 10; column++) out.number(select.integer(column));
				return out;
			});
	}

	void add_dropped()
	{
		add_small("dropped", "SELECT minute_ms, application, reason, count FROM dropped WHERE minute_ms >= ?",
			state_.tables_ms / minute_ms * minute_ms, [this](Statement &select) {
				RowWriter out = row(select.integer(0));
				out.number(select.integer(0));
				for (int column : {1, 2}) out.text(select.text(column));
				out.number(select.integer(3));
				return out;
			});
	}

	void add_releases()
	{
		add_small("release", "SELECT id, at_ms, name, application FROM release WHERE id > ?", state_.release_id,
			[this](Statement &select) {
				RowWriter out = row();
				moved_.release_id = std::max(moved_.release_id, select.integer(0));
				for (int column : {0, 1}) out.number(select.integer(column));
				for (int column : {2, 3}) out.text(select.text(column));
				return out;
			});
	}

	void add_applications()
	{
		add_small("application",
			"SELECT name, query_ms, query_process, sapi, php_version, given, packet_ms, packet_process, packets, "
			"seen_ms "
			"FROM application WHERE seen_ms >= ?",
			state_.tables_ms, [this](Statement &select) {
				RowWriter out = row();
				out.text(select.text(0));
				for (int column : {1, 2}) out.number(select.integer(column));
				for (int column : {3, 4, 5}) out.text(select.text(column));
				for (int column : {6, 7, 8, 9}) out.number(select.integer(column));
				return out;
			});
	}

	FollowedStore &store_;
	const ExportSource &source_;
	Inserts &inserts_;
	const ExportState &state_;
	ExportState moved_;
	std::unordered_map<int64_t, int64_t> keys_; // by the store's numbers
	std::set<int64_t> changed_;                 // keys whose sums have
};

} // namespace

void add_sums(FollowedStore &store, const ExportSource &source, Inserts &inserts, ExportState &state)
{
	SumExport sums(store, source, inserts, state);
	sums.add_all();
	state = sums.moved();
}

} // namespace quorbit
