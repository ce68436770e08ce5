// What a browser may order: a thread profile, its end, the mark of a release.
#include "web/api.h"

#include "base/clock.h"
#include "base/number.h"
#include "print/report.h"
#include "store/open_reader.h"
#include "store/releases.h"
#include "web/profiles.h"

#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

constexpr int64_t most_seconds = 600; // of a profile
constexpr std::string_view profiles_path = "/api/v1/profiles", releases_path = "/api/v1/releases";

// An order that cannot be what it is; says why.
struct BadOrder : std::runtime_error {
	using std::runtime_error::runtime_error;
};

std::string text_of(const Json &body, const char *name)
{
	if (!body.contains(name)) return {};
	if (!body[name].is_string()) throw BadOrder(std::string(name) + ": expected a text");
	return body[name].get<std::string>();
}

bool is_known(const DaemonConfig &config, const std::string &application)
{
	const auto known = open_reader(config)->applications();
	return std::any_of(known.begin(), known.end(), [&](const ApplicationRow &row) { return row.name == application; });
}

ApiAnswer order_profile(const ApiSource &source, const Json &body)
{
	const std::string application = text_of(body, "application");
	const bool usable = body.contains("seconds") && body["seconds"].is_number_integer();
	const int64_t seconds = usable ? body["seconds"].get<int64_t>() : 0;
	if (seconds < 1 || seconds > most_seconds)
		throw BadOrder("seconds: expected a number from 1 to " + std::to_string(most_seconds));
	if (!is_known(source.config, application)) throw BadOrder("application: nothing has come of one of this name");
	const int64_t id = source.profiles->order(application, seconds);
	if (id == 0) return api_error(429, "too many profiles wait or run: end one of them");
	return {200, json_text(Json{{"id", id}}, false)};
}

ApiAnswer end_profile(const ApiSource &source, std::string_view path)
{
	constexpr std::string_view end = "/end";
	int64_t id = 0;
	if (!path.ends_with(end) || !parse_number(path.substr(0, path.size() - end.size()), id) ||
		!source.profiles->end(id))
		return api_error(404, "there is no such profile");
	return {200, "{}\n"};
}

ApiAnswer mark(const ApiSource &source, const Json &body)
{
	const std::string name = text_of(body, "name"), application = text_of(body, "application");
	if (name.empty() || name.size() > most_release_name) throw BadOrder("name: expected 1 to 100 bytes");
	if (!application.empty() && !is_known(source.config, application))
		throw BadOrder("application: nothing has come of one of this name");
	mark_release(source.config.store_file(), {wall_clock_ms(), name, application});
	return {200, "{}\n"};
}

} // namespace

ApiAnswer obey(const ApiSource &source, const std::string &path, const std::string &body)
{
	if (source.sample) return api_error(409, "these are sample data: nothing runs that could be profiled or released");
	if (!source.config.store_url.empty())
		return api_error(409, "this page reads a fleet's store: profiles and releases are ordered on their hosts");
	const Json read = Json::parse(body, nullptr, false);
	if (!read.is_object()) return api_error(400, "the body has to be a JSON object");
	try {
		if (path == profiles_path) return order_profile(source, read);
		if (path == releases_path) return mark(source, read);
		if (path.starts_with(profiles_path)) return end_profile(source, path.substr(profiles_path.size() + 1));
		return api_error(404, "there is no such order");
	} catch (const BadOrder &bad) {
		return api_error(400, bad.what());
	} catch (const std::exception &failure) {
		return api_error(503, failure.what());
	}
}

} // namespace quorbit
