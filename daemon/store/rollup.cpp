// Adding to the sums and writing them.
#include "store/rollup.h"

#include "base/clock.h"

#include <algorithm>
#include <ctime>

namespace quorbit {

namespace {

constexpr int64_t minutes_per_hour = 60;
constexpr int64_t row_bytes = 24;      // of a row beside its sums, pages half empty included
constexpr size_t most_entries = 30000; // in memory after writing
constexpr size_t most_known = 20000;   // in memory
constexpr auto twentieth = 20;

constexpr const char *read_sql[] = {
	"SELECT sums FROM sum_minute WHERE kind = ?1 AND minute = ?2 AND key = ?3",
	"SELECT sums FROM sum_hour WHERE kind = ?1 AND hour = ?2 AND key = ?3",
	"SELECT sums FROM use_hour WHERE part = ?3 AND hour = ?2 AND action = ?4 AND kind = ?1",
};
constexpr const char *write_sql[] = {
	"INSERT INTO sum_minute (kind, minute, key, sums) VALUES (?1, ?2, ?3, ?5) "
	"ON CONFLICT (kind, minute, key) DO UPDATE SET sums = ?5",
	"INSERT INTO sum_hour (kind, hour, key, sums) VALUES (?1, ?2, ?3, ?5) "
	"ON CONFLICT (kind, hour, key) DO UPDATE SET sums = ?5",
	"INSERT INTO use_hour (kind, hour, part, action, sums) VALUES (?1, ?2, ?3, ?4, ?5) "
	"ON CONFLICT (part, hour, action) DO UPDATE SET sums = ?5",
};

constexpr const char *insert_key_sql = R"sql(
INSERT INTO sum_key (id, kind, application, name, vendor, subject, verb, place, finding, suggestion, finding_ms, error_class, message,
  first_ms, last_ms, caller) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?14, ?15))sql";

constexpr const char *describe_key_sql = R"sql(
UPDATE sum_key SET place = iif(?2 = '', place, ?2), caller = iif(?2 = '', caller, ?6), finding = iif(?3 = '', finding, ?3), suggestion = iif(?3 = '', suggestion, ?4),
  finding_ms = iif(?3 = '', finding_ms, ?5) WHERE id = ?1)sql";

std::string known_key(KeyKind kind, const std::string &application, const std::string &name)
{
	std::string key(1, static_cast<char>(kind));
	return key.append(application).append(1, '\0').append(name);
}

// Kinds of which is kept in which actions they were.
bool is_part(KeyKind kind)
{
	return kind == KeyKind::query || kind == KeyKind::error || kind == KeyKind::external || kind == KeyKind::cache;
}

// Of this thread: a disk or machine that is slow makes sums no dearer.
std::chrono::nanoseconds processor_time()
{
	struct timespec now;
	clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
	return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

} // namespace

Rollup::Rollup(Database &database)
	: database_(database),
	  find_key_(database, "SELECT id, last_ms FROM sum_key WHERE kind = ? AND application = ? AND name = ?"),
	  insert_key_(database, insert_key_sql),
	  seen_key_(database, "UPDATE sum_key SET last_ms = ?2 WHERE id = ?1"),
	  describe_key_(database, describe_key_sql),
	  count_keys_(database, "SELECT count(*) FROM sum_minute WHERE kind = ? AND minute = ?"),
	  read_{Statement(database, read_sql[0]), Statement(database, read_sql[1]), Statement(database, read_sql[2])},
	  write_{Statement(database, write_sql[0]), Statement(database, write_sql[1]), Statement(database, write_sql[2])},
	  keep_counter_(database, "UPDATE counter SET value = ?2 WHERE name = ?1")
{
	forget();
}

void Rollup::forget()
{
	entries_.clear();
	changed_.clear();
	known_.clear();
	minute_keys_.clear();
	behind_ = true;
	auto counter = [this](const std::string &name) {
		return database_.integer(("SELECT value FROM counter WHERE name = '" + name + "'").c_str());
	};
	summed_id_ = last_id_ = counter("summed");
	last_key_ = counter("sum_key");
	bytes_ = counter("sum_bytes");
}

void Rollup::catch_up()
{
	if (!behind_) return;
	Statement select(database_, "SELECT id, received_ms, packet FROM action WHERE id > ? ORDER BY id");
	select.bind(1, summed_id_);
	while (select.step()) {
		if (auto action = read_action(select.text(2))) add(*action, select.integer(0), select.integer(1));
	}
	behind_ = false;
}

size_t Rollup::SlotHash::operator()(const Slot &slot) const
{
	auto hash = static_cast<uint64_t>(slot.key) * 0x9E3779B97F4A7C15u;
	hash = (hash ^ (hash >> 32)) + static_cast<uint64_t>(slot.time) * 0xBF58476D1CE4E5B9u;
	hash = (hash ^ (hash >> 29)) + static_cast<uint64_t>(slot.action) * 0x94D049BB133111EBu;
	return hash ^ (hash >> 31) ^ (static_cast<uint64_t>(slot.table) << 4) ^ static_cast<uint64_t>(slot.kind);
}

void Rollup::add(const Action &action, int64_t id, int64_t received_ms)
{
	const int64_t minute = received_ms / minute_ms, hour = minute / minutes_per_hour;
	if (hour > hour_) hour_ = hour, hour_uses_ = 0;
	int64_t action_key = 0;
	for (KeySums &key : keys_of(action)) {
		key.sums.slowest_id = key.sums.newest_id = key.sums.chance_id = id;
		if (key.sums.slowest_us == 0) key.sums.slowest_us = key.sums.total_us;
		const int64_t key_id = known(key, minute).id;
		if (key.kind == KeyKind::action) action_key = key_id;
		for (const Slot &slot :
			{Slot{Table::minute, key.kind, minute, key_id, 0}, {Table::hour, key.kind, hour, key_id, 0}})
			entry(slot).sums.add(key.sums);
		if (is_part(key.kind)) add_use(key, key_id, action_key, hour);
	}
	last_id_ = std::max(last_id_, id);
}

void Rollup::add_use(const KeySums &key, int64_t id, int64_t action, int64_t hour)
{
	const Slot slot{Table::use, key.kind, hour, id, action};
	if (!entries_.contains(slot)) {
		if (hour_uses_ >= most_hour_uses) return;
		hour_uses_++;
	}
	Sums use;
	use.count = 1;
	use.statements = key.sums.count;
	use.errors = key.sums.errors;
	use.total_us = key.sums.total_us;
	use.durations.add(use.total_us);
	use.slowest_us = use.total_us;
	use.slowest_id = use.newest_id = use.chance_id = key.sums.newest_id;
	entry(slot).sums.add(use);
}

Rollup::Known *Rollup::find(KeyKind kind, const std::string &application, const std::string &name)
{
	std::string text = known_key(kind, application, name);
	if (auto found = known_.find(text); found != known_.end()) return &found->second;
	find_key_.bind(1, static_cast<int64_t>(kind)).bind(2, application).bind(3, name);
	const bool found = find_key_.step();
	const Known known{found ? find_key_.integer(0) : 0, found ? find_key_.integer(1) / minute_ms : 0, 0};
	find_key_.reset();
	if (!found) return nullptr;
	if (known_.size() >= most_known) known_.clear();
	return &known_.emplace(std::move(text), known).first->second;
}

Rollup::Known &Rollup::make(const KeySums &key, int64_t minute)
{
	const KeyFacts &facts = key.facts;
	const Known known{++last_key_, minute, minute};
	const int64_t at_ms = minute * minute_ms;
	insert_key_.bind(1, known.id)
		.bind(2, static_cast<int64_t>(key.kind))
		.bind(3, facts.application)
		.bind(4, facts.name);
	insert_key_.bind(5, facts.vendor).bind(6, facts.table).bind(7, facts.verb).bind(8, facts.place);
	insert_key_.bind(9, facts.finding).bind(10, facts.suggestion).bind(11, facts.finding.empty() ? 0 : at_ms);
	insert_key_.bind(12, facts.error_class).bind(13, facts.message).bind(14, at_ms);
	insert_key_.bind(15, facts.caller).run();
	if (known_.size() >= most_known) known_.clear();
	return known_.insert_or_assign(known_key(key.kind, facts.application, facts.name), known).first->second;
}

// The key under which this one counts: itself, or "(others)" when there are too many in the minute.
Rollup::Known &Rollup::known(KeySums &key, int64_t minute)
{
	Known *found = find(key.kind, key.facts.application, key.facts.name);
	if (found && is_kept({Table::minute, key.kind, minute, found->id, 0})) {
		describe(*found, key.facts, minute);
		return *found;
	}
	int64_t &keys = minute_keys(key.kind, minute);
	const bool is_other = key.facts.name == other_keys;
	if (keys >= most_minute_keys && !is_other) {
		std::string application = std::move(key.facts.application);
		key.facts = {};
		key.facts.application = std::move(application);
		key.facts.name = other_keys;
		return known(key, minute);
	}
	if (keys >= most_minute_keys + most_other_keys && key.facts.application != other_keys) {
		key.facts.application = other_keys;
		return known(key, minute);
	}
	keys++;
	if (!found) found = &make(key, minute);
	describe(*found, key.facts, minute);
	return *found;
}

// Once a minute.
void Rollup::describe(Known &known, const KeyFacts &facts, int64_t minute)
{
	if (minute > known.last_minute) {
		known.last_minute = minute;
		seen_key_.bind(1, known.id).bind(2, minute * minute_ms).run();
	}
	if (known.described_minute >= minute || (facts.finding.empty() && facts.place.empty())) return;
	known.described_minute = minute;
	describe_key_.bind(1, known.id).bind(2, facts.place).bind(3, facts.finding).bind(4, facts.suggestion);
	describe_key_.bind(5, minute * minute_ms).bind(6, facts.caller).run();
}

int64_t &Rollup::minute_keys(KeyKind kind, int64_t minute)
{
	auto [found, is_new] = minute_keys_.try_emplace(minute);
	if (is_new) found->second.fill(-1);
	int64_t &keys = found->second[static_cast<size_t>(kind)];
	if (keys == -1) {
		// Those that are not written yet were counted when they were made.
		count_keys_.bind(1, static_cast<int64_t>(kind)).bind(2, minute).step();
		keys = count_keys_.integer(0);
		count_keys_.reset();
	}
	return keys;
}

// Whether the row exists, in memory or in the file, from where it is fetched.
bool Rollup::is_kept(const Slot &slot)
{
	if (entries_.contains(slot)) return true;
	Statement &read = read_[static_cast<size_t>(slot.table)];
	read.bind(1, static_cast<int64_t>(slot.kind)).bind(2, slot.time).bind(3, slot.key);
	if (slot.table == Table::use) read.bind(4, slot.action);
	const bool found = read.step();
	if (found) {
		const std::string bytes = read.text(0);
		Entry &kept = entries_[slot];
		kept.sums.add_bytes(bytes);
		kept.kept_bytes = static_cast<int64_t>(bytes.size()) + row_bytes;
	}
	read.reset();
	return found;
}

// The row in memory, which is going to be changed.
Rollup::Entry &Rollup::entry(const Slot &slot)
{
	is_kept(slot);
	Entry &found = entries_[slot];
	if (!found.changed) changed_.emplace_back(slot, &found); // stays where it is until leave_old()
	found.changed = true;
	return found;
}

bool Rollup::is_due() const
{
	return !changed_.empty() && Clock::now() - written_at_ >= twentieth * write_time_;
}

void Rollup::write()
{
	const auto begin = processor_time();
	// In the order of the file's pages.
	std::sort(changed_.begin(), changed_.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
	for (auto &[slot, entry] : changed_) write(slot, *entry);
	changed_.clear();
	summed_id_ = last_id_;
	keep_counters();
	leave_old();
	written_at_ = Clock::now();
	write_time_ = processor_time() - begin;
}

void Rollup::write(const Slot &slot, Entry &entry)
{
	const std::string bytes = entry.sums.bytes();
	Statement &write = write_[static_cast<size_t>(slot.table)];
	write.bind(1, static_cast<int64_t>(slot.kind)).bind(2, slot.time).bind(3, slot.key);
	if (slot.table == Table::use) write.bind(4, slot.action);
	write.bind_blob(5, bytes).run();
	bytes_ -= entry.kept_bytes;
	entry.kept_bytes = static_cast<int64_t>(bytes.size()) + row_bytes;
	bytes_ += entry.kept_bytes;
	entry.changed = false;
}

void Rollup::keep_counters()
{
	keep_counter_.bind(1, std::string_view("summed")).bind(2, summed_id_).run();
	keep_counter_.bind(1, "sum_key").bind(2, last_key_).run();
	keep_counter_.bind(1, "sum_bytes").bind(2, bytes_).run();
}

// After writing nothing has to be in memory; the present minute and hour are wanted again at once.
void Rollup::leave_old()
{
	const bool new_minute = minute_keys_.size() > 2;
	while (minute_keys_.size() > 2) minute_keys_.erase(minute_keys_.begin());
	if (entries_.size() > most_entries) return entries_.clear();
	if (!new_minute) return;
	const int64_t first_minute = minute_keys_.begin()->first;
	std::erase_if(entries_,
		[&](const auto &row) { return row.first.time < (row.first.table == Table::minute ? first_minute : hour_); });
}

} // namespace quorbit
