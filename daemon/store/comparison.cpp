// Comparing by sums: the same for every store.
#include "store/comparison.h"

#include "base/clock.h"
#include "facts/rank_test.h"
#include "facts/rate_test.h"

#include <algorithm>
#include <map>
#include <stdexcept>

namespace quorbit {

namespace {

constexpr int64_t fewest_samples = 20;
constexpr double most_chance = 0.01, least_change = 0.05;
constexpr int64_t most_keys = 20000;
constexpr int64_t most_ms = day_ms; // on each side of a release

double hours_of(const TimeRange &range)
{
	return std::max(static_cast<double>(range.until_ms - range.from_ms) / static_cast<double>(hour_ms), 1e-3);
}

struct Pair {
	KeyFacts facts;
	Sums before, after;
};

class Comparer {
public:
	Comparer(Reader &store, const CompareQuestion &question) : store_(store), question_(question)
	{
		comparison_.before = question.before;
		comparison_.after = question.after;
	}

	Comparison run()
	{
		for (SumKey key : {SumKey::action, SumKey::query, SumKey::error}) add(key);
		for (const Candidate &candidate : candidates_) judge(candidate);
		auto order = [](const Change &change) {
			return std::tuple(-change.lost_us_per_hour, change.kind, -change.after.count,
				std::tie(change.facts.application, change.facts.name));
		};
		std::sort(comparison_.changes.begin(), comparison_.changes.end(),
			[order](const Change &a, const Change &b) { return order(a) < order(b); });
		return std::move(comparison_);
	}

private:
	struct Candidate {
		SumKey key;
		Pair pair;
		ChangeKind kind;
		double p;
		double change; // of the average duration or of the rate, by what it was
	};
	struct Actions {
		int64_t before = 0, after = 0;
	};

	SumAnswer ask(SumKey key, const TimeRange &range)
	{
		SumQuestion question;
		question.key = key;
		question.filter.range = range;
		question.filter.application = question_.application;
		question.filter.host = question_.host;
		question.most = most_keys;
		return store_.sums(question);
	}

	void add(SumKey key)
	{
		const SumAnswer before = ask(key, question_.before), after = ask(key, question_.after);
		if (key == SumKey::action) {
			comparison_.before = before.range;
			comparison_.after = after.range;
			actions_before_ = before.all.count;
			actions_after_ = after.all.count;
			for (const SumRow &row : before.rows) actions_of_[row.key.application].before += row.sums.count;
			for (const SumRow &row : after.rows) actions_of_[row.key.application].after += row.sums.count;
		}
		std::map<int64_t, Pair> pairs;
		for (const SumRow &row : before.rows) pairs[row.key.id].facts = row.key, pairs[row.key.id].before = row.sums;
		for (const SumRow &row : after.rows) pairs[row.key.id].facts = row.key, pairs[row.key.id].after = row.sums;
		for (auto &[id, pair] : pairs) {
			if (pair.before.count == 0 || pair.after.count == 0)
				came_or_went(key, pair);
			else if (key == SumKey::error)
				compare_rates(std::move(pair));
			else
				compare_durations(key, std::move(pair));
		}
	}

	// Where the other range had too few actions for one to be expected, its lack says nothing. That something is there
	// is a fact, that it is gone a conclusion: with three expected, chance leaves all of them out in 5 % of cases
	// (exp(-3)).
	void came_or_went(SumKey key, const Pair &pair)
	{
		const bool came = pair.before.count == 0;
		const auto there = static_cast<double>(came ? actions_after_ : actions_before_);
		const auto elsewhere = static_cast<double>(came ? actions_before_ : actions_after_);
		const auto count = static_cast<double>(came ? pair.after.count : pair.before.count);
		if (there <= 0 || count * elsewhere / there < (came ? 1 : 3)) return;
		Change change{came ? ChangeKind::appeared : ChangeKind::vanished, key, pair.facts, pair.before, pair.after};
		const double before = static_cast<double>(pair.before.total_us) / hours_of(comparison_.before);
		const double after = static_cast<double>(pair.after.total_us) / hours_of(comparison_.after);
		if (key != SumKey::error) change.lost_us_per_hour = after - before;
		comparison_.changes.push_back(std::move(change));
	}

	void compare_rates(Pair pair)
	{
		comparison_.compared++;
		const Actions &actions = actions_of_[pair.facts.application];
		const double p = rate_test(pair.before.count, actions.before, pair.after.count, actions.after);
		const double rate_before = static_cast<double>(pair.before.count) / static_cast<double>(actions.before);
		const double change =
			static_cast<double>(pair.after.count) / static_cast<double>(actions.after) / rate_before - 1;
		const ChangeKind kind = change > 0 ? ChangeKind::more_often : ChangeKind::less_often;
		candidates_.push_back({SumKey::error, std::move(pair), kind, p, change});
	}

	void compare_durations(SumKey key, Pair pair)
	{
		comparison_.compared++;
		if (std::min(pair.before.count, pair.after.count) < fewest_samples) {
			comparison_.too_few++;
			return;
		}
		const RankTest test = rank_test(pair.before.durations, pair.after.durations, fewest_samples);
		const double change = average_us(pair.after) / average_us(pair.before) - 1;
		const bool slower = test.longer > 0.5;
		const double p = (change > 0) == slower ? test.p : 1;
		candidates_.push_back({key, std::move(pair), slower ? ChangeKind::slower : ChangeKind::faster, p, change});
	}

	static double average_us(const Sums &sums)
	{
		return std::max(static_cast<double>(sums.total_us), 1.0) / static_cast<double>(sums.count);
	}

	void judge(const Candidate &candidate)
	{
		const auto &[key, pair, kind, p, change] = candidate;
		if (p * static_cast<double>(candidates_.size()) > most_chance || std::abs(change) < least_change) return;
		double lost = 0;
		if (key != SumKey::error)
			lost =
				change * average_us(pair.before) * static_cast<double>(pair.after.count) / hours_of(comparison_.after);
		comparison_.changes.push_back({kind, key, pair.facts, pair.before, pair.after, lost, p});
	}

	Reader &store_;
	const CompareQuestion &question_;
	Comparison comparison_;
	std::vector<Candidate> candidates_;
	int64_t actions_before_ = 0, actions_after_ = 0;
	std::map<std::string, Actions> actions_of_; // by application
};

} // namespace

CompareQuestion around_release(const std::vector<ReleaseRow> &releases, const std::string &name, int64_t now_ms)
{
	auto found = std::find_if(
		releases.rbegin(), releases.rend(), [&name](const ReleaseRow &release) { return release.name == name; });
	if (found == releases.rend()) {
		std::string known;
		for (const ReleaseRow &release : releases) known += (known.empty() ? "" : ", ") + release.name;
		throw std::runtime_error(
			"no release \"" + name + "\" was marked; known: " + (known.empty() ? "none yet" : known));
	}
	const int64_t at_ms = found->at_ms / minute_ms * minute_ms, from_ms = at_ms + minute_ms;
	int64_t until_ms = std::min(now_ms, from_ms + most_ms);
	if (found != releases.rbegin()) until_ms = std::min(until_ms, std::prev(found)->at_ms / minute_ms * minute_ms);
	if (until_ms <= from_ms)
		throw std::runtime_error("less than a minute has passed since then: nothing can be compared yet");
	int64_t before_ms = at_ms - (until_ms - from_ms);
	if (auto former = std::next(found); former != releases.rend())
		before_ms = std::max(before_ms, former->at_ms / minute_ms * minute_ms + minute_ms);
	if (before_ms >= at_ms)
		throw std::runtime_error("less than a minute lies between the release and the one before it");
	return {{before_ms, at_ms}, {from_ms, until_ms}};
}

Comparison compare(Reader &store, const CompareQuestion &question)
{
	return Comparer(store, question).run();
}

} // namespace quorbit
