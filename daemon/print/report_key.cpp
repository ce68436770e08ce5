// One key, and two ranges compared, for people.
#include "base/clock.h"
#include "print/page.h"
#include "print/report_sums.h"

#include <algorithm>
#include <cmath>

namespace quorbit {

namespace {

std::string figures_text(const Sums &sums)
{
	auto percentile = [&sums](double share) { return fine_duration_text(sums.durations.percentile_us(share)); };
	return "average " + fine_duration_text(sums.average_us()) + ", median " + percentile(0.5) + ", p95 " +
		percentile(0.95) + ", p99 " + percentile(0.99);
}

std::string layers_text(const Sums &sums)
{
	const std::pair<const char *, int64_t> layers[] = {{"database", sums.database_us}, {"caches", sums.cache_us},
		{"outgoing calls", sums.external_us}, {"code", sums.code_us}};
	std::string text;
	for (const auto &[name, us] : layers) {
		if (us) text += (text.empty() ? "" : ", ") + std::string(name) + " " + percent(us, sums.total_us);
	}
	return text;
}

std::string examples_text(const Sums &sums)
{
	auto command = [](int64_t id) { return "quorbit show " + std::to_string(id); };
	std::string text = "slowest: " + command(sums.slowest_id);
	if (sums.newest_id != sums.slowest_id) text += ", newest: " + command(sums.newest_id);
	if (sums.chance_id != sums.slowest_id && sums.chance_id != sums.newest_id)
		text += ", by chance: " + command(sums.chance_id);
	return text;
}

// The most lines of a trend; parts are put together until it has no more.
constexpr size_t most_trend = 24;

void print_trend(const KeyReport &report, Page &page)
{
	if (report.series.empty()) return;
	page.section("Trend");
	const size_t together = (report.series.size() + most_trend - 1) / most_trend;
	std::vector<std::vector<std::string>> cells;
	for (size_t at = 0; at < report.series.size(); at += together) {
		Sums sums;
		for (size_t i = at; i < std::min(at + together, report.series.size()); i++) sums.add(report.series[i].sums);
		cells.push_back(
			{local_time(report.series[at].at_ms).substr(0, 16), std::to_string(sums.count), std::to_string(sums.errors),
				fine_duration_text(sums.average_us()), fine_duration_text(sums.durations.percentile_us(0.95))});
	}
	page.rows({{"from"}, {"count", true}, {"errors", true}, {"average", true}, {"p95", true}}, cells, most_trend);
}

void print_related(SumKey key, const SumAnswer &answer, Page &page)
{
	if (answer.rows.empty()) return;
	constexpr size_t most_related = 10;
	static constexpr const char *titles[] = {
		"Actions", "Paths", "Queries", "Errors", "Outgoing calls", "Caches", "Components", "Applications", "Hosts"};
	page.section(titles[static_cast<size_t>(key)]);
	std::vector<std::vector<std::string>> cells;
	for (const SumRow &row : answer.rows) {
		const double each =
			static_cast<double>(row.sums.statements) / static_cast<double>(std::max(row.sums.count, int64_t{1}));
		char times[32];
		snprintf(times, sizeof times, each < 9.95 ? "%.1f" : "%.0f", each);
		cells.push_back({std::to_string(row.sums.count), times, fine_duration_text(row.sums.average_us()),
			std::string(name_of(key)) + ":" + std::to_string(row.key.id),
			cut(printable(row.key.name), page.text_columns())});
	}
	page.rows({{"actions", true}, {"times each", true}, {"time each", true}, {"id"}, {"name", false, true}}, cells,
		page.most(most_related));
	page.left_out(static_cast<size_t>(answer.left_out));
}

const char *word_of(ChangeKind kind)
{
	constexpr const char *words[] = {"appeared", "more often", "slower", "faster", "less often", "vanished"};
	return words[static_cast<size_t>(kind)];
}

std::string range_text(const TimeRange &range)
{
	return local_time(range.from_ms).substr(0, 16) + " to " + local_time(range.until_ms).substr(0, 16);
}

std::string lost_text(const Change &change)
{
	if (change.lost_us_per_hour == 0) return "-";
	const bool won = change.lost_us_per_hour < 0;
	return (won ? "-" : "+") + fine_duration_text(std::llround(std::abs(change.lost_us_per_hour)));
}

std::string chance_text(const Change &change)
{
	if (change.kind == ChangeKind::appeared || change.kind == ChangeKind::vanished) return "";
	char text[32];
	snprintf(text, sizeof text, change.p < 1e-4 ? "<0.0001" : "%.4f", change.p);
	return text;
}

} // namespace

std::string key_text(const KeyReport &report, size_t width, int64_t now_wall_ms)
{
	Page page(width, false);
	const KeyFacts &facts = report.row.key;
	const Sums &sums = report.row.sums;
	page.out =
		std::string(name_of(report.key)) + ":" + std::to_string(facts.id) + "  " + printable(facts.application) + "\n";
	page.entry("", facts.name);
	page.entry("in the time", range_text(report.range));
	page.entry("count", std::to_string(sums.count) + (sums.errors ? ", errors " + std::to_string(sums.errors) : ""));
	page.entry("took", figures_text(sums));
	if (std::string layers = layers_text(sums); !layers.empty()) page.entry("spent in", layers);
	page.entry("seen", "first " + ago(facts.first_ms, now_wall_ms) + ", last " + ago(facts.last_ms, now_wall_ms));
	if (!facts.place.empty()) {
		page.entry(report.key == SumKey::error ? "raised at" : "run at", Place{facts.place, facts.caller}.text());
	}
	if (!facts.finding.empty()) page.entry("finding", facts.finding);
	if (!facts.suggestion.empty()) page.entry("try", facts.suggestion);
	if (sums.slowest_id) page.entry("examples", examples_text(sums));
	print_trend(report, page);
	for (const auto &[key, answer] : report.related) print_related(key, answer, page);
	return page.out;
}

std::string comparison_text(const Comparison &comparison, size_t width)
{
	std::string text =
		"before  " + range_text(comparison.before) + "\nafter   " + range_text(comparison.after) + "\n\n";
	std::vector<std::vector<std::string>> cells;
	for (const Change &change : comparison.changes) {
		auto average = [](const Sums &sums) { return sums.count ? fine_duration_text(sums.average_us()) : "-"; };
		cells.push_back({word_of(change.kind), lost_text(change), std::to_string(change.before.count),
			average(change.before), std::to_string(change.after.count), average(change.after), chance_text(change),
			name_of(change.key), printable(change.facts.application), printable(change.facts.name)});
	}
	if (cells.empty()) {
		text += "Nothing has changed that the figures can tell from chance.\n";
	} else {
		text += table({{"CHANGE"}, {"TIME/H", true}, {"BEFORE", true}, {"AVG", true}, {"AFTER", true}, {"AVG", true},
						  {"P", true}, {"WHAT"}, {"APPLICATION", false, true}, {"NAME", false, true}},
			cells, width);
	}
	text += "\nCompared: " + std::to_string(comparison.compared) + " that were there before and after";
	if (comparison.too_few)
		text += ", " + std::to_string(comparison.too_few) +
			" of them with too few samples (20 on each side) to say anything";
	return text + ".\n";
}

} // namespace quorbit
