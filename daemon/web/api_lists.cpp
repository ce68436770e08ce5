// From parameters to questions, from answers to JSON.
#include "web/api_lists.h"

#include "base/clock.h"
#include "base/number.h"
#include "print/report.h"
#include "print/report_radar.h"
#include "print/report_services.h"
#include "print/report_sums.h"
#include "store/comparison.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

constexpr int64_t most_points = 90;
constexpr int64_t trend_points = 24;

const std::string &text_of(const Parameters &parameters, const std::string &name)
{
	static const std::string none;
	auto found = parameters.find(name);
	return found == parameters.end() ? none : found->second;
}

int64_t number_of(const Parameters &parameters, const std::string &name, int64_t least, int64_t most, int64_t otherwise)
{
	const std::string &text = text_of(parameters, name);
	if (text.empty()) return otherwise;
	int64_t value = 0;
	if (parse_number(text, value) && value >= least && value <= most) return value;
	throw BadParameter(name + ": expected a number from " + std::to_string(least) + " to " + std::to_string(most));
}

// "since", a span of time that ends now, or "from" and "until" in milliseconds since 1970.
TimeRange range_of(const Parameters &parameters)
{
	constexpr int64_t most_ms = int64_t{1} << 53;
	const std::string &since = text_of(parameters, "since");
	if (since.empty())
		return {number_of(parameters, "from", 0, most_ms, 0), number_of(parameters, "until", 0, most_ms, most_ms)};
	auto seconds = parse_seconds(since);
	if (!seconds) throw BadParameter("since: expected a time such as 90s, 15m, 2h or 7d");
	return {wall_clock_ms() - *seconds * 1000, most_ms};
}

// The same for sums, which end with the present minute, and begin an hour ago unless told otherwise.
TimeRange range_of_sums(const Parameters &parameters)
{
	TimeRange range = range_of(parameters);
	const int64_t now_ms = wall_clock_ms();
	range.until_ms = std::min(range.until_ms, now_ms / minute_ms * minute_ms + minute_ms);
	if (range.from_ms == 0) range.from_ms = range.until_ms - 60 * minute_ms;
	range.from_ms = std::min(range.from_ms, range.until_ms - minute_ms);
	return range;
}

ActionFilter filter_of(const Parameters &parameters)
{
	ActionFilter filter;
	filter.range = range_of(parameters);
	filter.application = text_of(parameters, "app");
	filter.host = text_of(parameters, "host");
	filter.after_id = number_of(parameters, "after", 0, INT64_MAX, 0);
	filter.name_glob = text_of(parameters, "name");
	filter.path_glob = text_of(parameters, "path");
	filter.errors = text_of(parameters, "errors") == "1";
	filter.least_us = number_of(parameters, "slower", 0, INT64_MAX, 0);
	filter.below_us = number_of(parameters, "faster", 0, INT64_MAX, INT64_MAX);
	return filter;
}

SumKey key_of(const Parameters &parameters)
{
	const std::string &by = text_of(parameters, "by");
	auto key = sum_key_of(by.empty() ? "action" : by);
	if (!key)
		throw BadParameter("by: expected action, path, query, error, external, cache, component, application or host");
	return *key;
}

} // namespace

std::string api_requests(Reader &store, const Parameters &parameters)
{
	ActionQuestion question{filter_of(parameters), ActionOrder::newest, number_of(parameters, "n", 1, 1000, 20)};
	if (text_of(parameters, "sort") == "duration") question.order = ActionOrder::slowest;
	Json list = Json::array();
	store.each_action(question, [&list](const ActionRow &row) { list.push_back(action_summary(row)); });
	return json_text(list, false);
}

std::string api_top(Reader &store, const Parameters &parameters)
{
	SumQuestion question;
	question.key = key_of(parameters);
	question.filter.range = range_of_sums(parameters);
	question.filter.application = text_of(parameters, "app");
	question.filter.host = text_of(parameters, "host");
	question.filter.name_glob = text_of(parameters, "name");
	const std::string &sort = text_of(parameters, "sort");
	auto order = sum_order_of(sort.empty() ? "total" : sort);
	if (!order) throw BadParameter("sort: expected total, count, avg, p95, p99, errors or statements");
	question.order = *order;
	question.most = number_of(parameters, "n", 1, 1000, 100);
	question.trend_points = trend_points;
	return json_text(sums_json(sum_list(store, question)), false);
}

std::string api_series(Reader &store, const Parameters &parameters)
{
	SeriesQuestion question;
	question.key = key_of(parameters);
	question.filter.range = range_of_sums(parameters);
	question.filter.application = text_of(parameters, "app");
	question.filter.host = text_of(parameters, "host");
	question.filter.id = number_of(parameters, "id", 0, INT64_MAX, 0);
	question.step_ms = step_of(question.filter.range, most_points);
	SeriesReport report;
	report.range = question.filter.range;
	report.step_ms = question.step_ms;
	report.points = store.series(question);
	if (!report.points.empty()) // where hours are all that there is, or that can be waited for
		report.step_ms = std::ranges::min(report.points, {}, &SeriesPoint::step_ms).step_ms;
	report.releases = store.releases(question.filter.application);
	report.durations = text_of(parameters, "heat") == "1";
	if (text_of(parameters, "pools") == "1")
		report.machine = store.machine({report.range, report.step_ms, question.filter.host});
	return json_text(series_json(report), false);
}

std::string api_compare(Reader &store, const Parameters &parameters)
{
	const int64_t now_ms = wall_clock_ms();
	const std::string &application = text_of(parameters, "app"), &release = text_of(parameters, "release");
	CompareQuestion question;
	try {
		if (!release.empty()) question = around_release(store.releases(application), release, now_ms);
	} catch (const std::runtime_error &refusal) {
		throw BadParameter(refusal.what());
	}
	if (release.empty()) {
		question.after = range_of_sums(parameters);
		const int64_t length_ms = question.after.until_ms - question.after.from_ms;
		question.before.until_ms =
			number_of(parameters, "before_until", 0, question.after.until_ms, question.after.from_ms);
		question.before.from_ms = number_of(parameters, "before_from", 0, question.before.until_ms - 1,
			std::max(question.before.until_ms - length_ms, int64_t{0}));
	}
	question.application = application;
	question.host = text_of(parameters, "host");
	return json_text(comparison_json(compare(store, question)), false);
}

std::string api_releases(Reader &store, const Parameters &parameters)
{
	return json_text(releases_json(store.releases(text_of(parameters, "app"))), false);
}

std::string api_services(Reader &store, const Parameters &parameters)
{
	SumFilter filter;
	filter.range = range_of_sums(parameters);
	filter.application = text_of(parameters, "app");
	filter.host = text_of(parameters, "host");
	return json_text(service_map_json(service_map(store, filter)), false);
}

std::string api_hosts(Reader &store, const Parameters &)
{
	return json_text(Json(store.hosts()), false);
}

ApiAnswer api_radar(const std::string &store_path, const Parameters &parameters)
{
	RadarQuestion question;
	const std::string &to = text_of(parameters, "to"), &format = text_of(parameters, "format");
	const auto version = read_version(to);
	if (!to.empty() && !version) throw BadParameter("to: expected a version such as 8.3");
	if (!format.empty() && format != "csv" && format != "sarif") throw BadParameter("format: expected csv or sarif");
	if (version) question.to_version = *version;
	question.application = text_of(parameters, "app");
	question.unused_days = number_of(parameters, "days", 1, radar_days, question.unused_days);
	question.most = number_of(parameters, "limit", 1, question.most, question.most);
	question.now_ms = wall_clock_ms();
	const RadarAnswer answer = find_on_radar(store_path, question);
	if (format == "csv") return {200, radar_csv(answer), "text/csv; charset=utf-8"};
	if (format == "sarif") return {200, json_text(radar_sarif(answer), false), "application/sarif+json"};
	return {200, json_text(radar_json(answer), false)};
}

std::string api_key(Reader &store, std::string_view path, const Parameters &parameters)
{
	const size_t slash = path.find('/');
	auto key = slash == std::string_view::npos ? std::nullopt : sum_key_of(path.substr(0, slash));
	if (!key) return {};
	const std::string_view number = path.substr(slash + 1);
	int64_t id = 0;
	if (!parse_number(number, id)) return {};
	auto report = key_report(store, *key, id, range_of_sums(parameters), text_of(parameters, "host"));
	return report ? json_text(key_json(*report), false) : "";
}

} // namespace quorbit
