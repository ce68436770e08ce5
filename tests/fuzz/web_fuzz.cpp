// What reaches the page's server: on each connection at most one request is answered, nobody without a token or a session is told
// anything, and nobody without the session's own token gives an order.
// Input: what a client sends. The words TOKEN, COOKIE and ORDER become the access token, a session's cookie and its token.
// sources: daemon/web/handlers.cpp daemon/web/gate.cpp daemon/web/sessions.cpp daemon/base/bounded_server.cpp
// libraries: cpp-httplib nlohmann_json
#include "print/report.h"
#include "require.h"
#include "base/version.h"
#include "web/handlers.h"
#include "web/page.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <sys/socket.h>
#include <unistd.h>

using namespace quorbit;

const char* const quorbit::product_version = "1";

namespace {

std::string_view sent;
const std::string access_token(48, 'a');
std::string cookie, order;

bool shown(const std::string& secret) { return sent.find(secret) != sent.npos; }

class Direct : public BoundedServer {
 public:
  using BoundedServer::process_and_close_socket;
};

void replace(std::string& text, std::string_view word, const std::string& with) {
  for (size_t at = 0; (at = text.find(word, at)) != text.npos; at += with.size()) text.replace(at, word.size(), with);
}

}  // namespace

// What is behind the doors.
std::string quorbit::json_text(const Json& value, bool) { return value.dump(-1, ' ', true, Json::error_handler_t::replace); }
ApiAnswer quorbit::api_error(int status, const std::string&) { return {status, "{}"}; }
ApiAnswer quorbit::answer_api(const ApiSource&, const std::string& path, const std::multimap<std::string, std::string>&) {
  REQUIRE(path.starts_with("/api/") && (shown("Bearer " + access_token) || shown(cookie)));
  return {200, "{}"};
}
ApiAnswer quorbit::obey(const ApiSource&, const std::string&, const std::string& body) {
  REQUIRE(shown(cookie) && shown(order) && body.size() <= BoundedServer::most_body);
  return {200, "{}"};
}
MetricAnswer quorbit::answer_metrics(Metrics&, std::string_view) {
  REQUIRE(shown("Bearer " + access_token) || shown(cookie));
  return {200, "text/plain", ""};
}
std::span<const PageFile> quorbit::page_files() {
  static constexpr PageFile shell[] = {{"/", "text/html", "\"1\"", false, {}}};
  return shell;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Sessions sessions(access_token);
  Session session;
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  REQUIRE(sessions.open(access_token, std::chrono::duration_cast<std::chrono::milliseconds>(now).count(), session) == Entry::granted);
  cookie = session.cookie;
  order = session.token;
  alignas(Metrics) static char metrics[sizeof(Metrics)];
  Direct server;
  add_handlers(server, {{}, sessions, reinterpret_cast<Metrics&>(metrics), {"own"}, 1});

  std::string input(reinterpret_cast<const char*>(data), size);
  replace(input, "TOKEN", access_token);
  replace(input, "COOKIE", cookie);
  replace(input, "ORDER", order);
  sent = input;
  int ends[2];
  REQUIRE(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
  REQUIRE(send(ends[0], input.data(), input.size(), MSG_DONTWAIT) == static_cast<ssize_t>(input.size()));
  shutdown(ends[0], SHUT_WR);
  server.process_and_close_socket(ends[1]);
  std::string answer(1 << 16, '\0');
  const ssize_t length = recv(ends[0], answer.data(), answer.size(), MSG_DONTWAIT | MSG_WAITALL);
  answer.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
  close(ends[0]);
  REQUIRE(answer.empty() || answer.starts_with("HTTP/1.1 "));
  REQUIRE(answer.find("HTTP/1.1 ", 1) == answer.npos);
  REQUIRE(answer.find("200 OK") == answer.npos || answer.find("default-src 'none'") != answer.npos);
  return 0;
}
