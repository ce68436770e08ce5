// Routes, parameters, answers.
#include "web/api.h"

#include "base/number.h"
#include "print/report.h"
#include "store/open_reader.h"
#include "web/api_lists.h"
#include "web/profiles.h"

#include <charconv>
#include <nlohmann/json.hpp>
#include <semaphore>

namespace quorbit {

namespace {

struct Route {
	std::string_view path;
	std::string (*answer)(Reader &store, const Parameters &parameters);
};

constexpr Route routes[] = {
	{"requests", api_requests},
	{"top", api_top},
	{"series", api_series},
	{"compare", api_compare},
	{"releases", api_releases},
	{"services", api_services},
	{"hosts", api_hosts},
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

ApiAnswer answer_key(Reader &store, std::string_view path, const Parameters &parameters)
{
	const std::string text = api_key(store, path, parameters);
	return text.empty() ? api_error(404, "there is no such key (it may not have been seen for long)")
						: ApiAnswer{200, text};
}

ApiAnswer answer_profiles(Profiles &profiles, std::string_view path)
{
	if (path.empty()) return {200, profiles.list()};
	int64_t id = 0;
	if (!parse_number(path.substr(1), id)) return nothing_here();
	const std::string text = profiles.one(id);
	return text.empty() ? api_error(404, "there is no such profile: those ordered last are kept")
						: ApiAnswer{200, text};
}

// Hosts keep their radar to themselves.
std::string store_of_host(const DaemonConfig &config)
{
	if (config.store_url.empty()) return config.store_file();
	throw std::runtime_error("a fleet's store does not have the radar: ask `quorbit radar` on the host");
}

ApiAnswer answer(const DaemonConfig &config, std::string_view path, const Parameters &parameters)
{
	constexpr std::string_view one_key = "keys/";
	constexpr std::string_view one_request = "requests/";
	if (path == "radar") return api_radar(store_of_host(config), parameters);
	for (const Route &route : routes) {
		if (path == route.path) return {200, route.answer(*open_reader(config), parameters)};
	}
	if (path.starts_with(one_key)) return answer_key(*open_reader(config), path.substr(one_key.size()), parameters);
	if (!path.starts_with(one_request)) return nothing_here();
	return answer_request(*open_reader(config), path.substr(one_request.size()));
}

} // namespace

ApiAnswer api_error(int status, const std::string &message)
{
	return {status, json_text(Json{{"error", message}}, false)};
}

ApiAnswer answer_api(const ApiSource &source, const std::string &path, const Parameters &parameters)
{
	// What one large request takes in memory is taken twice at most.
	static std::counting_semaphore<2> turns(2);
	constexpr std::string_view prefix = "/api/v1/";
	if (!path.starts_with(prefix)) return nothing_here();
	turns.acquire();
	ApiAnswer found;
	try {
		const std::string_view question = std::string_view(path).substr(prefix.size());
		if (question == "status")
			found = {200, source.status(source.config)};
		else if (question == "now")
			found = {200, source.now(source.config)};
		else if (question == "profiles" || question.starts_with("profiles/"))
			found = answer_profiles(*source.profiles, question.substr(std::string_view("profiles").size()));
		else if (has_store(source.config))
			found = answer(source.config, question, parameters);
		else
			found = api_error(503, "nothing has been received yet");
	} catch (const BadParameter &bad) {
		found = api_error(400, bad.what());
	} catch (const std::exception &failure) {
		found = api_error(503, failure.what());
	}
	turns.release();
	return found;
}

} // namespace quorbit
