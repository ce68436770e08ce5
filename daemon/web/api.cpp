// Routes, parameters, answers.
#include "web/api.h"

#include "base/clock.h"
#include "print/report.h"
#include "store/open_reader.h"

#include <charconv>
#include <nlohmann/json.hpp>
#include <semaphore>
#include <stdexcept>

namespace quorbit {

namespace {

using Parameters = std::multimap<std::string, std::string>;

// A parameter that cannot be what it is for.
struct BadParameter : std::runtime_error {
	using std::runtime_error::runtime_error;
};

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
	auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
	if (error == std::errc() && end == text.data() + text.size() && value >= least && value <= most) return value;
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

ActionFilter filter_of(const Parameters &parameters)
{
	return {range_of(parameters), text_of(parameters, "app"), number_of(parameters, "after", 0, INT64_MAX, 0)};
}

std::string requests(Reader &store, const Parameters &parameters)
{
	const ActionQuestion question{filter_of(parameters), ActionOrder::newest, number_of(parameters, "n", 1, 1000, 20)};
	Json list = Json::array();
	store.each_action(question, [&list](const ActionRow &row) { list.push_back(action_summary(row)); });
	return json_text(list, false);
}

struct Route {
	std::string_view path;
	std::string (*answer)(Reader &store, const Parameters &parameters);
};

constexpr Route routes[] = {
	{"requests", requests},
};

// What is asked of one request: /requests/ID, /requests/ID/elements, ...
struct RequestRoute {
	std::string_view path;
	std::string (*answer)(const WholeAction &whole);
};

constexpr RequestRoute request_routes[] = {
	{"", [](const WholeAction &whole) { return json_text(action_json(whole.shown, whole.related), false); }},
	{"/elements", [](const WholeAction &whole) { return trace_elements_json(whole.shown.action); }},
	{"/statements", [](const WholeAction &whole) { return statement_groups_json(whole.shown.action); }},
	{"/events", [](const WholeAction &whole) { return trace_events_json(whole.shown); }},
};

ApiAnswer nothing_here()
{
	return api_error(404, "there is nothing of this name; docs/api.md has the list");
}

ApiAnswer answer_request(Reader &store, std::string_view path)
{
	int64_t id = 0;
	auto [end, error] = std::from_chars(path.data(), path.data() + path.size(), id);
	path.remove_prefix(static_cast<size_t>(end - path.data()));
	for (const RequestRoute &route : request_routes) {
		if (error != std::errc() || path != route.path) continue;
		auto whole = whole_action(store, id);
		if (!whole) return api_error(404, "there is no request " + std::to_string(id) + " (it may have been dropped)");
		return {200, route.answer(*whole)};
	}
	return nothing_here();
}

ApiAnswer answer(const DaemonConfig &config, std::string_view path, const Parameters &parameters)
{
	constexpr std::string_view one_request = "requests/";
	for (const Route &route : routes) {
		if (path == route.path) return {200, route.answer(*open_reader(config), parameters)};
	}
	if (!path.starts_with(one_request)) return nothing_here();
	return answer_request(*open_reader(config), path.substr(one_request.size()));
}

} // namespace

ApiAnswer api_error(int status, const std::string &message)
{
	return {status, json_text(Json{{"error", message}}, false)};
}

ApiAnswer answer_api(const DaemonConfig &config, const std::string &path, const Parameters &parameters)
{
	// What one large request takes in memory is taken twice at most.
	static std::counting_semaphore<2> turns(2);
	constexpr size_t prefix = std::string_view("/api/v1/").size();
	turns.acquire();
	ApiAnswer found;
	try {
		found = has_store(config) ? answer(config, std::string_view(path).substr(prefix), parameters)
								  : api_error(503, "nothing has been received yet");
	} catch (const BadParameter &bad) {
		found = api_error(400, bad.what());
	} catch (const std::exception &failure) {
		found = api_error(503, failure.what());
	}
	turns.release();
	return found;
}

} // namespace quorbit
