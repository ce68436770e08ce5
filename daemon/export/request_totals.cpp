// Counters from sums by minute: each minute is read until nothing can come to it any more, and what it has gained since
// it was read last is added.
#include "export/request_totals.h"

#include "base/text.h"

#include <algorithm>

namespace quorbit {

namespace {

constexpr int64_t recent_minutes = 5;                // to which packets that waited for the disk may still come
constexpr int64_t most_minutes = day_ms / minute_ms; // that are made up for after nobody asked
constexpr size_t label_columns = 200;

std::string label_of(std::string_view text)
{
	return cut_middle(printable(text), label_columns);
}

bool is_other(const RequestLabels &labels)
{
	return labels.application == other_keys || labels.action == other_keys;
}

RequestLabels application_of(const RequestLabels &labels)
{
	return {labels.application, ""};
}

RequestLabels labels_of(SumKey of, const KeyFacts &key)
{
	if (of == SumKey::action || key.name == other_keys) return {label_of(key.application), label_of(key.name)};
	return {label_of(key.application), "", label_of(key.vendor), label_of(key.table), label_of(key.verb)};
}

} // namespace

RequestCounts::RequestCounts(const Sums &sums, std::span<const int64_t> bounds_us)
	: count(sums.count),
	  errors(sums.errors),
	  total_us(sums.total_us),
	  database_us(sums.database_us),
	  cache_us(sums.cache_us),
	  external_us(sums.external_us),
	  code_us(sums.code_us),
	  cpu_us(sums.cpu_us)
{
	const std::vector<int64_t> &counts = sums.durations.counts();
	for (size_t i = 0; i < counts.size(); i++) {
		const int64_t us = Histogram::duration_of(sums.durations.first() + static_cast<int>(i));
		const auto bound = std::lower_bound(bounds_us.begin(), bounds_us.end(), us);
		durations[static_cast<size_t>(bound - bounds_us.begin())] += counts[i];
	}
}

void RequestCounts::add(const RequestCounts &other, int64_t sign)
{
	for (auto field :
		{&RequestCounts::count, &RequestCounts::errors, &RequestCounts::total_us, &RequestCounts::database_us,
			&RequestCounts::cache_us, &RequestCounts::external_us, &RequestCounts::code_us, &RequestCounts::cpu_us})
		this->*field += sign * other.*field;
	for (size_t i = 0; i < durations.size(); i++) durations[i] += sign * other.durations[i];
}

void RequestTotals::update(Reader *reader, int64_t now_ms)
{
	const int64_t minute = now_ms / minute_ms, first_recent = minute - recent_minutes + 1;
	// After the clock was set back nobody knows which requests were counted.
	const bool begins = recent_.empty() || recent_.rbegin()->first > minute + 1;
	const int64_t next = begins ? first_recent : recent_.rbegin()->first + 1;
	std::map<int64_t, Minute> before = begins ? std::map<int64_t, Minute>() : recent_, now;
	for (int64_t at = std::max(next, first_recent); at <= minute; at++) before[at];
	for (const auto &[at, seen] : before) now[at] = read(reader, at, at + 1);
	Minute missed; // nobody has asked for long
	if (next < first_recent) missed = read(reader, std::max(next, minute - most_minutes), first_recent);
	recent_ = std::move(now);
	if (!begins) {
		give_places();
		add(missed, {});
		for (const auto &[at, seen] : before) add(recent_[at], seen);
	}
	recent_.erase(recent_.begin(), recent_.lower_bound(first_recent));
}

RequestTotals::Minute RequestTotals::read(Reader *reader, int64_t from_minute, int64_t until_minute) const
{
	if (!reader) return {};
	SumQuestion question;
	question.key = of_.key;
	question.filter.range = {from_minute * minute_ms, until_minute * minute_ms};
	question.most = INT64_MAX;
	Minute minute;
	SumAnswer answer = reader->sums(question);
	// Where only hours are left, they hold more than was asked for.
	if (answer.range.from_ms < question.filter.range.from_ms) answer.rows.clear();
	for (const SumRow &row : answer.rows) {
		const RequestLabels labels = labels_of(of_.key, row.key);
		minute.actions[labels].add(RequestCounts(row.sums, of_.bounds_us));
		Slowest &slowest = minute.slowest[labels];
		if (row.sums.slowest_us > slowest.us) slowest = {row.sums.slowest_us, row.sums.slowest_id};
	}
	for (const DroppedRow &row : reader->dropped(question.filter.range, "")) minute.dropped[row.reason] += row.count;
	return minute;
}

std::map<RequestLabels, Slowest> RequestTotals::slowest() const
{
	std::map<RequestLabels, Slowest> found;
	for (const auto &[at, minute] : recent_) {
		for (const auto &[labels, slowest] : minute.slowest) {
			if (!actions_.counts.contains(labels)) continue;
			Slowest &most = found[labels];
			if (slowest.us > most.us) most = slowest;
		}
	}
	return found;
}

void RequestTotals::give_places()
{
	std::map<RequestLabels, int64_t> applications, actions;
	for (const auto &[at, minute] : recent_) {
		for (const auto &[labels, counts] : minute.actions) {
			const int64_t weight = counts.total_us + counts.count;
			applications[application_of(labels)] += weight;
			actions[labels] += weight;
		}
	}
	applications_.give(applications);
	actions_.give(actions);
}

// Free places first; then those of others that have less than half as much, so that equals do not take turns.
void RequestTotals::Places::give(const std::map<RequestLabels, int64_t> &weights)
{
	using Weighed = std::pair<int64_t, RequestLabels>;
	std::vector<Weighed> wanting, having;
	for (const auto &[labels, weight] : weights) {
		if (!is_other(labels) && !counts.contains(labels)) wanting.emplace_back(weight, labels);
	}
	std::sort(wanting.rbegin(), wanting.rend());
	for (const auto &[labels, of_it] : counts) {
		const auto found = weights.find(labels);
		if (!is_other(labels)) having.emplace_back(found == weights.end() ? 0 : found->second, labels);
	}
	std::sort(having.begin(), having.end());
	size_t lost = 0;
	for (const auto &[weight, labels] : wanting) {
		if (taken == most) {
			if (lost == having.size() || having[lost].first * 2 >= weight) break;
			counts.erase(having[lost++].second);
			taken--;
		}
		counts[labels];
		taken++;
	}
}

void RequestTotals::Places::add(const RequestLabels &labels, const RequestLabels &else_to, const RequestCounts &more)
{
	const auto found = counts.find(labels);
	(found == counts.end() ? counts[else_to] : found->second).add(more);
}

void RequestTotals::add(const Minute &now, const Minute &before)
{
	for (const auto &[labels, counts] : now.actions) {
		RequestCounts gained = counts;
		const auto seen = before.actions.find(labels);
		if (seen != before.actions.end()) gained.add(seen->second, -1);
		if (gained == RequestCounts()) continue;
		const RequestLabels application = application_of(labels);
		const bool known = applications_.counts.contains(application);
		applications_.add(application, {other_keys, ""}, gained);
		actions_.add(labels, {known ? labels.application : other_keys, other_keys}, gained);
	}
	for (const auto &[reason, count] : now.dropped) {
		const auto seen = before.dropped.find(reason);
		dropped_[reason] += count - (seen == before.dropped.end() ? 0 : seen->second);
	}
}

} // namespace quorbit
