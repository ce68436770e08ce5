// From a request to its answer. Who may ask what is decided in one place, before a body is read.
#include "web/handlers.h"

#include "base/version.h"
#include "web/gate.h"
#include "web/page.h"
#include "print/report.h"

#include <chrono>
#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

using httplib::Request;
using httplib::Response;

constexpr const char *login_path = "/api/v1/session";
constexpr const char *metrics_path = "/metrics";
constexpr const char *logout_path = "/api/v1/session/end";

int64_t now_ms()
{
	const auto now = std::chrono::steady_clock::now().time_since_epoch();
	return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

// Nothing is loaded from elsewhere, nothing runs that is not a file of ours, and no other page shows this one.
const httplib::Headers &safe_headers()
{
	static const httplib::Headers headers = {
		{"Content-Security-Policy",
			"default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'; "
			"base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
		{"X-Content-Type-Options", "nosniff"},
		{"X-Frame-Options", "DENY"},
		{"Referrer-Policy", "no-referrer"},
		{"Cross-Origin-Opener-Policy", "same-origin"},
		{"Cross-Origin-Resource-Policy", "same-origin"},
	};
	return headers;
}

void send(Response &response, const ApiAnswer &answer)
{
	response.status = answer.status;
	response.set_header("Cache-Control", "no-store");
	response.set_content(answer.body, answer.type);
}

class Handlers {
public:
	explicit Handlers(const Served &served) : served_(served) {}

	// True when the request has been answered.
	bool before_body(const Request &request, Response &response)
	{
		const Visit visit = {request.method, request.path, request.get_header_value("Host"),
			request.get_header_value("Origin"), request.get_header_value("Sec-Fetch-Site"),
			request.get_header_value("Content-Type"), request.get_header_value_count("Host") == 1};
		if (auto refusal = refuse(visit, served_.hosts))
			return send(response, api_error(refusal->status, refusal->message)), true;
		if (request.path == metrics_path) return may_go_on(request, response) && metrics(request, response), true;
		if (!request.path.starts_with("/api/")) return page(request, response), true;
		if (request.path == login_path && request.method == "POST") return false;
		return !may_go_on(request, response) || answer(request, response);
	}

	// Of somebody who may order.
	void order(const Request &request, Response &response)
	{
		if (request.path != logout_path) return send(response, obey(served_.source, request.path, request.body));
		served_.sessions.close(cookie_of(request));
		response.set_header("Set-Cookie", cookie_name() + "=; Path=/; Max-Age=0; HttpOnly; SameSite=Strict");
		send(response, {200, "{}\n"});
	}

	void log_in(const Request &request, Response &response)
	{
		const auto body = nlohmann::json::parse(request.body, nullptr, false);
		const bool usable = body.is_object() && body.contains("token") && body["token"].is_string();
		Session session;
		const Entry entry = served_.sessions.open(usable ? body["token"].get<std::string>() : "", now_ms(), session);
		if (entry != Entry::granted) return refuse_entry(entry, response);
		const bool encrypted = request.get_header_value("X-Forwarded-Proto") == "https";
		response.set_header("Set-Cookie",
			cookie_name() + "=" + session.cookie + "; Path=/; HttpOnly; SameSite=Strict" +
				(encrypted ? "; Secure" : ""));
		send(response, {200, about(session)});
	}

private:
	std::string cookie_name() const { return "quorbit-" + std::to_string(served_.port); }

	std::string cookie_of(const Request &request) const
	{
		const std::string header = "; " + request.get_header_value("Cookie"), wanted = "; " + cookie_name() + "=";
		const size_t at = header.find(wanted);
		if (at == std::string::npos) return {};
		return header.substr(at + wanted.size(), header.find(';', at + wanted.size()) - at - wanted.size());
	}

	static void refuse_entry(Entry entry, Response &response)
	{
		if (entry == Entry::refused) return send(response, api_error(401, "this token is not valid, or has been used"));
		response.set_header("Retry-After", std::to_string(Sessions::pause_ms / 1000));
		send(response, api_error(429, "too many wrong tokens: try again in a minute"));
	}

	std::string about(const std::optional<Session> &session) const
	{
		const Json about = {{"version", product_version}, {"token", session ? Json(session->token) : Json()},
			{"sample", served_.source.sample}, {"fleet", !served_.source.config.store_url.empty()}};
		return json_text(about, false);
	}

	void page(const Request &request, Response &response) const
	{
		const auto files = page_files();
		const PageFile *found = &files[0]; // every view has an address of its own
		for (const PageFile &file : files) {
			if (file.path == request.path) found = &file;
		}
		const bool named = found->path == request.path, shell = !named && request.path.find('.') == std::string::npos;
		if (!named && !shell) return send(response, api_error(404, "there is no such file"));
		response.set_header("ETag", std::string(found->tag));
		response.set_header("Cache-Control", "no-cache");
		if (request.get_header_value("If-None-Match") == found->tag) {
			response.status = 304;
			return;
		}
		if (found->gzipped) response.set_header("Content-Encoding", "gzip");
		response.status = 200;
		response.set_content(
			reinterpret_cast<const char *>(found->bytes.data()), found->bytes.size(), std::string(found->type));
	}

	bool metrics(const Request &request, Response &response) const
	{
		const MetricAnswer found = answer_metrics(served_.metrics, request.get_header_value("Accept"));
		response.status = found.status;
		response.set_header("Cache-Control", "no-store");
		response.set_content(found.text, found.type);
		return true;
	}

	// Whether the request shows what it needs; else it has been answered.
	bool may_go_on(const Request &request, Response &response) const
	{
		const auto session = served_.sessions.find(cookie_of(request), now_ms());
		const std::string shown = request.get_header_value("Authorization");
		constexpr std::string_view bearer = "Bearer ";
		if (!session) {
			if (!shown.starts_with(bearer))
				return send(response, api_error(401, "log in, or show a token (docs/api.md)")), false;
			const Entry entry = served_.sessions.check(std::string_view(shown).substr(bearer.size()), now_ms());
			if (entry != Entry::granted) return refuse_entry(entry, response), false;
		}
		if (request.method != "POST") return true;
		if (session && equal_secrets(request.get_header_value("X-Quorbit-Token"), session->token)) return true;
		return send(response, api_error(403, "an order needs the session's token")), false;
	}

	// False for what has a body that is still to be read.
	bool answer(const Request &request, Response &response) const
	{
		if (request.method == "POST") return false;
		if (request.path == login_path)
			send(response, {200, about(served_.sessions.find(cookie_of(request), now_ms()))});
		else
			send(response, answer_api(served_.source, request.path, request.params));
		return true;
	}

	const Served served_;
};

} // namespace

void add_handlers(BoundedServer &server, const Served &served)
{
	auto handlers = std::make_shared<Handlers>(served);
	server.set_default_headers(safe_headers());
	server.set_pre_routing_handler([handlers](const Request &request, Response &response) {
		return handlers->before_body(request, response) ? httplib::Server::HandlerResponse::Handled
														: httplib::Server::HandlerResponse::Unhandled;
	});
	server.Post(
		login_path, [handlers](const Request &request, Response &response) { handlers->log_in(request, response); });
	server.Post(
		"/api/.*", [handlers](const Request &request, Response &response) { handlers->order(request, response); });
	server.set_exception_handler([](const Request &, Response &response, const std::exception_ptr &) {
		send(response, api_error(500, "this request failed"));
	});
}

} // namespace quorbit
