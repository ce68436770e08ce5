// Deriving keys from a decoded action.
#include "facts/keys.h"

#include "facts/path_text.h"
#include "facts/places.h"
#include "facts/plan.h"
#include "facts/sql_text.h"
#include "facts/trace.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <unordered_map>

namespace quorbit {

namespace {

// Bytes of a name that are kept: names that differ only after them share a key.
constexpr size_t most_name = 1024, most_place = 512, most_message = 300;
// Keys of one kind in an action; what comes beyond is in "(others)".
constexpr size_t most_in_action = 200;

bool is_digit(char byte)
{
	return byte >= '0' && byte <= '9';
}

// At most that many bytes, without half a character at the end.
std::string start_of(std::string_view text, size_t most)
{
	if (text.size() <= most) return std::string(text);
	while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0) == 0x80) most--;
	return std::string(text.substr(0, most));
}

// "http://stock/item/* (curl_exec)" of "http:%2F%2Fstock%2Fitem%2F*/curl_exec".
std::string call_name(std::string_view name)
{
	size_t slash = name.rfind('/');
	std::string url;
	std::string_view rest = name.substr(0, slash);
	for (size_t at = 0; at < rest.size(); at++) {
		if (rest.substr(at, 3) == "%2F")
			url += '/', at += 2;
		else
			url += rest[at];
	}
	return slash == std::string_view::npos ? url : url + " (" + std::string(name.substr(slash + 1)) + ")";
}

// What cutting each duration to whole milliseconds has lost, spread over all of them: none lost a millisecond.
class Remainder {
public:
	Remainder(int64_t exact_us, int64_t cut_ms, int64_t count)
		: each_us_(count ? std::clamp((exact_us - cut_ms * 1000) / count, int64_t{0}, int64_t{999}) : 0)
	{
	}
	int64_t us(int64_t cut_ms) const { return cut_ms * 1000 + each_us_; }

private:
	int64_t each_us_;
};

// What an exception that nobody caught said, and where it was thrown: "Uncaught exception 'Oops' with message 'no
// stock' in /cart.php:4\nStack trace: ..." by PHP's words. Of any other message the message itself.
struct Thrown {
	std::string_view message, place;
};

Thrown thrown_by(std::string_view message)
{
	constexpr std::string_view with = "' with message '", in = "' in ";
	const std::string_view first = message.substr(0, message.find("\nStack trace:"));
	const size_t begin = first.find(with), end = first.rfind(in);
	if (!first.starts_with("Uncaught exception '") || begin == std::string_view::npos ||
		end == std::string_view::npos || end < begin + with.size())
		return {message, {}};
	return {first.substr(begin + with.size(), end - begin - with.size()), first.substr(end + in.size())};
}

class Keys {
public:
	explicit Keys(const Action &action) : action_(action) {}

	std::vector<KeySums> all()
	{
		actions();
		statements();
		error();
		calls();
		caches();
		components();
		return std::move(found_);
	}

private:
	// The key's entry, made when it is new.
	KeySums &at(KeyKind kind, std::string name)
	{
		name = start_of(name, most_name);
		auto &entries = indexes_[static_cast<size_t>(kind)];
		if (entries.size() >= most_in_action && !entries.contains(name)) name = other_keys;
		auto [entry, is_new] = entries.try_emplace(name, found_.size());
		if (is_new) {
			found_.push_back({kind, {}, {}});
			found_.back().facts.application = action_.application.substr(0, most_name);
			found_.back().facts.name = std::move(name);
		}
		return found_[entry->second];
	}

	static void add(Sums &sums, int64_t us)
	{
		sums.count++;
		sums.total_us += us;
		sums.durations.add(us);
	}

	Sums whole() const
	{
		Sums sums;
		add(sums, action_.duration_us());
		sums.errors = action_.error.has_value();
		sums.database_us = action_.database_us();
		sums.cache_us = action_.cache_us();
		sums.external_us = action_.external_us();
		sums.code_us = action_.code_us();
		sums.statements = action_.statement_count();
		if (const auto &exact = action_.exact) {
			sums.waiting_us = exact->waited_us.value_or(0);
			sums.cpu_us = exact->user_us + exact->system_us;
		}
		return sums;
	}

	void actions()
	{
		at(KeyKind::action, action_.name).sums = whole();
		if (!action_.path.empty()) at(KeyKind::path, mask_path(action_.path)).sums = whole();
	}

	void statements()
	{
		int64_t cut_ms = 0;
		for (const SqlStatement &sql : action_.statements) cut_ms += sql.duration_ms;
		const Remainder remainder(action_.database_us(), cut_ms, action_.statement_count());
		std::map<size_t, Places> places; // by the key's number in found_
		for (const SqlStatement &sql : action_.statements) {
			const std::string &kind = kind_of(sql);
			KeySums &key = at(KeyKind::query, kind);
			const int64_t us = remainder.us(sql.duration_ms);
			if (key.sums.count == 0) describe(key.facts, sql, kind);
			add(key.sums, us);
			key.sums.statements++;
			key.sums.slowest_us = std::max(key.sums.slowest_us, us);
			places[static_cast<size_t>(&key - found_.data())].add(sql, us);
			if (!sql.plan.empty()) judge(key.facts, sql, kind);
		}
		for (const auto &[number, ran] : places) {
			found_[number].facts.place = start_of(ran.most().at, most_place);
			found_[number].facts.caller = start_of(ran.most().caller, most_place);
		}
	}

	// Most statements of an action are the same text again, or differ in their values alone.
	const std::string &kind_of(const SqlStatement &sql)
	{
		if (last_ && last_->statement == sql.statement && last_->vendor == sql.vendor) return last_kind_;
		last_ = &sql;
		return last_kind_ = normalise_sql(sql.statement, sql.vendor);
	}

	static void describe(KeyFacts &facts, const SqlStatement &sql, const std::string &kind)
	{
		facts.vendor = start_of(sql.vendor, 64);
		const SqlSubject subject = subject_of_sql(kind);
		facts.verb = start_of(subject.verb, 32);
		facts.table = start_of(subject.table, 128);
	}

	static void judge(KeyFacts &facts, const SqlStatement &sql, const std::string &kind)
	{
		if (!facts.finding.empty()) return;
		auto plan = parse_agent_json(sql.plan);
		if (!plan) return;
		facts.finding = start_of(plan_finding(*plan), most_place);
		if (!facts.finding.empty())
			facts.suggestion = start_of(plan_suggestion(*plan, sql.statement, kind), most_place);
	}

	void error()
	{
		if (!action_.error) return;
		KeyFacts facts;
		facts.error_class = start_of(action_.error->cls, 200);
		const Thrown thrown = thrown_by(action_.error->message);
		facts.message = mask_message(start_of(thrown.message, most_message));
		facts.place = innermost_place(action_.error->stack);
		facts.place = start_of(facts.place.empty() ? thrown.place : facts.place, most_place);
		KeySums &key = at(KeyKind::error,
			facts.error_class + ": " + facts.message + (facts.place.empty() ? "" : " at " + facts.place));
		facts.application = key.facts.application;
		facts.name = key.facts.name;
		key.facts = std::move(facts);
		key.sums = whole();
	}

	void calls()
	{
		int64_t cut_ms = 0;
		for (const ServiceCall &call : action_.services) cut_ms += call.duration_ms;
		const Remainder remainder(action_.external_us(), cut_ms, static_cast<int64_t>(action_.services.size()));
		for (const ServiceCall &call : action_.services)
			add(at(KeyKind::external, call_name(call.name)).sums, remainder.us(call.duration_ms));
		for (const ServiceError &failed : action_.service_errors) {
			std::string_view name = failed.name;
			if (name.starts_with("External/")) name.remove_prefix(9);
			at(KeyKind::external, call_name(name)).sums.errors++;
		}
	}

	void caches()
	{
		int64_t cut_ms = 0;
		for (const CacheCall &call : action_.caches) cut_ms += call.duration_ms;
		const Remainder remainder(action_.cache_us(), cut_ms, static_cast<int64_t>(action_.caches.size()));
		for (const CacheCall &call : action_.caches) {
			std::string collection = call.collection.empty() ? "" : call.collection + " ";
			add(at(KeyKind::cache, call.product + " " + collection + call.operation).sums,
				remainder.us(call.duration_ms));
		}
	}

	void components()
	{
		for (const Component &component : action_.components) {
			Sums &sums = at(KeyKind::component, component.name).sums;
			add(sums, component.duration_ms * 1000);
			sums.code_us += component.own_ms * 1000;
		}
	}

	const Action &action_;
	std::vector<KeySums> found_;
	std::unordered_map<std::string, size_t> indexes_[key_kinds]; // into found_, by name
	const SqlStatement *last_ = nullptr;
	std::string last_kind_;
};

} // namespace

std::vector<KeySums> keys_of(const Action &action)
{
	return Keys(action).all();
}

std::string mask_message(std::string_view message)
{
	std::string masked;
	for (size_t at = 0; at < message.size(); at++) {
		const char byte = message[at];
		const bool in_word = at > 0 && (isalnum(static_cast<unsigned char>(message[at - 1])) != 0);
		const size_t closing = (byte == '\'' && !in_word) || byte == '"' || byte == '`' ? message.find(byte, at + 1)
																						: std::string_view::npos;
		if (closing != std::string_view::npos) {
			masked += byte;
			masked += "…";
			masked += byte;
			at = closing;
		} else if (is_digit(byte)) {
			if (!masked.ends_with('#')) masked += '#';
		} else {
			masked += byte;
		}
	}
	return masked;
}

} // namespace quorbit
