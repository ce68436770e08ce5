// Running the probe: by its program, or as a client of FPM.
#include "host/probe.h"

#include "base/files.h"
#include "base/number.h"
#include "host/run_program.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr int answer_seconds = 10;
constexpr const char *first_line = "quorbit doctor", *last_line = "end of quorbit doctor";

// For every PHP 5: no function that an extension has.
constexpr const char *script_text = R"php(<?php
function quorbit_doctor_line($name, $value) {
    if (is_scalar($value)) echo "\n", $name, "\t", strtr((string)$value, "\r\n", '  ');
}
echo "\nquorbit doctor";
quorbit_doctor_line('process', getmypid());
quorbit_doctor_line('version', PHP_VERSION);
quorbit_doctor_line('sapi', PHP_SAPI);
quorbit_doctor_line('ini_file', php_ini_loaded_file());
foreach (array('open_basedir', 'disable_functions', 'max_execution_time', 'xdebug.default_enable') as $name)
    quorbit_doctor_line($name, ini_get($name));
if (extension_loaded('quorbit')) {
    foreach (ini_get_all('quorbit', false) as $name => $value) quorbit_doctor_line($name, $value);
}
echo "\nend of quorbit doctor\n";
)php";

// Its lines, out of whatever the server puts around them.
ProbeAnswer read_answer(const std::string &printed, const std::string &otherwise)
{
	ProbeAnswer answer;
	const size_t begin = printed.find(std::string("\n") + first_line + "\n");
	const size_t end = printed.find(std::string("\n") + last_line, std::min(begin, printed.size()));
	if (end == std::string::npos) {
		answer.trouble = otherwise;
		return answer;
	}
	for (size_t at = printed.find('\n', begin + 1) + 1; at < end;) {
		const size_t stop = printed.find('\n', at), tab = printed.find('\t', at);
		if (tab < stop) answer.told[printed.substr(at, tab - at)] = printed.substr(tab + 1, stop - tab - 1);
		at = stop + 1;
	}
	parse_number(answer.value("process"), answer.process);
	return answer;
}

// The first line of what was printed that says something.
std::string first_words(std::string text)
{
	text.erase(0, text.find_first_not_of(" \r\n"));
	return text.substr(0, text.find_first_of("\r\n"));
}

struct Descriptor {
	int number = -1;
	explicit Descriptor(int opened) : number(opened) {}
	~Descriptor()
	{
		if (number != -1) close(number);
	}
	Descriptor(const Descriptor &) = delete;
	Descriptor &operator=(const Descriptor &) = delete;
};

int connect_unix(const std::string &path)
{
	struct sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	if (path.size() >= sizeof(address.sun_path)) return errno = ENAMETOOLONG, -1;
	memcpy(address.sun_path, path.c_str(), path.size());
	const int file = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (file != -1 && connect(file, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0) return file;
	const int error = errno;
	if (file != -1) close(file);
	return errno = error, -1;
}

int connect_tcp(const std::string &host, const std::string &port)
{
	struct addrinfo wanted = {}, *found = nullptr;
	wanted.ai_socktype = SOCK_STREAM;
	if (getaddrinfo(host.c_str(), port.c_str(), &wanted, &found) != 0) return errno = EHOSTUNREACH, -1;
	int file = -1, error = EHOSTUNREACH;
	for (const struct addrinfo *one = found; one && file == -1; one = one->ai_next) {
		file = socket(one->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
		if (file == -1 || connect(file, one->ai_addr, one->ai_addrlen) == 0) continue;
		error = errno;
		close(file);
		file = -1;
	}
	freeaddrinfo(found);
	return errno = error, file;
}

int connect_to(const std::string &address)
{
	if (address.starts_with('/')) return connect_unix(address);
	const size_t colon = address.rfind(':');
	const std::string host = colon == std::string::npos ? "" : address.substr(0, colon);
	const std::string port = colon == std::string::npos ? address : address.substr(colon + 1);
	return connect_tcp(host.empty() || host == "*" ? "localhost" : host, port);
}

enum RecordType : uint8_t {
	begin_request = 1,
	end_request = 3,
	params = 4,
	standard_input = 5,
	output = 6,
	errors = 7
};

constexpr size_t header_bytes = 8;

std::string record(RecordType type, const std::string &content)
{
	const auto length = static_cast<uint16_t>(content.size());
	const std::array<char, header_bytes> header = {
		1, static_cast<char>(type), 0, 1, static_cast<char>(length >> 8), static_cast<char>(length & 0xFF), 0, 0};
	return std::string(header.data(), header.size()) + content;
}

void add_length(std::string &text, size_t length)
{
	if (length < 128) {
		text += static_cast<char>(length);
		return;
	}
	for (int shift = 24; shift >= 0; shift -= 8)
		text += static_cast<char>((length >> shift & 0xFF) | (shift == 24 ? 0x80 : 0));
}

std::string request_for(const std::string &path)
{
	const std::string name = "/" + std::filesystem::path(path).filename().string();
	const std::pair<const char *, std::string> variables[] = {{"GATEWAY_INTERFACE", "CGI/1.1"},
		{"REQUEST_METHOD", "GET"}, {"SCRIPT_FILENAME", path}, {"SCRIPT_NAME", name}, {"REQUEST_URI", name},
		{"DOCUMENT_URI", name}, {"QUERY_STRING", ""}, {"SERVER_PROTOCOL", "HTTP/1.0"}, {"SERVER_SOFTWARE", "quorbit"},
		{"SERVER_NAME", "localhost"}, {"SERVER_PORT", "80"}, {"REMOTE_ADDR", "127.0.0.1"}, {"HTTP_HOST", "localhost"}};
	std::string all;
	for (const auto &[key, value] : variables) {
		add_length(all, strlen(key));
		add_length(all, value.size());
		all += key + value;
	}
	const std::string responder("\0\1\0\0\0\0\0\0", header_bytes);
	return record(begin_request, responder) + record(params, all) + record(params, "") + record(standard_input, "");
}

struct Reply {
	bool ended = false;
	std::string output, errors;
};

// Takes whole records off the front of `received`.
void take_records(std::string &received, Reply &reply)
{
	auto byte = [&](size_t at) { return static_cast<uint8_t>(received[at]); };
	while (!reply.ended && received.size() >= header_bytes) {
		const size_t length = static_cast<size_t>(byte(4)) << 8 | byte(5);
		const size_t whole = header_bytes + length + byte(6);
		if (received.size() < whole) return;
		const std::string content = received.substr(header_bytes, length);
		if (byte(1) == output) reply.output += content;
		if (byte(1) == errors) reply.errors += content;
		reply.ended = byte(1) == end_request;
		received.erase(0, whole);
	}
}

Reply exchange(int file, const std::string &request)
{
	constexpr size_t most_bytes = size_t{1} << 20;
	Reply reply;
	if (send(file, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) return reply;
	std::string received;
	char block[16384];
	while (!reply.ended && reply.output.size() < most_bytes) {
		struct pollfd ready = {file, POLLIN, 0};
		if (poll(&ready, 1, answer_seconds * 1000) != 1) return reply;
		const ssize_t count = recv(file, block, sizeof(block), 0);
		if (count <= 0) return reply;
		received.append(block, static_cast<size_t>(count));
		take_records(received, reply);
	}
	return reply;
}

} // namespace

std::string ProbeAnswer::value(const std::string &name) const
{
	const auto found = told.find(name);
	return found == told.end() ? "" : found->second;
}

ProbeScript::ProbeScript()
{
	std::string name = std::filesystem::temp_directory_path() / "quorbit-doctor-XXXXXX";
	if (!mkdtemp(name.data())) throw_errno(name);
	folder_ = name;
	path_ = folder_ + "/" + std::filesystem::path(name).filename().string() + ".php";
	const Descriptor file(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
	const auto length = static_cast<ssize_t>(strlen(script_text));
	const bool written = file.number != -1 && write(file.number, script_text, static_cast<size_t>(length)) == length &&
		fchmod(file.number, 0644) == 0 && chmod(folder_.c_str(), 0755) == 0;
	if (written) return;
	const int error = errno;
	std::error_code ignored;
	std::filesystem::remove_all(folder_, ignored);
	errno = error;
	throw_errno(path_);
}

ProbeScript::~ProbeScript()
{
	std::error_code ignored;
	std::filesystem::remove_all(folder_, ignored);
}

ProbeAnswer probe_program(const std::string &program, const ProbeScript &script)
{
	const ProgramRun run = run_program({program, "-d", "html_errors=0", "-f", script.path()}, answer_seconds);
	std::string why = "it printed: " + first_words(run.printed);
	if (first_words(run.printed).empty())
		why = "it ended with status " + std::to_string(run.status) + " and printed nothing";
	if (!run.ended) why = "it did not end within " + std::to_string(answer_seconds) + " s";
	return read_answer("\n" + run.printed, why);
}

ProbeAnswer probe_fpm(const std::string &address, const ProbeScript &script)
{
	const Descriptor file(connect_to(address));
	ProbeAnswer answer;
	if (file.number == -1) {
		answer.trouble = std::string("no connection to ") + address + ": " + strerror(errno);
		return answer;
	}
	const Reply reply = exchange(file.number, request_for(script.path()));
	if (!reply.ended && reply.output.empty()) {
		answer.trouble = "FPM did not answer";
		return answer;
	}
	const size_t body = reply.output.find("\r\n\r\n");
	const std::string said = body == std::string::npos ? "" : first_words(reply.output.substr(body));
	return read_answer(reply.output, "FPM said: " + first_words(reply.errors.empty() ? said : reply.errors));
}

} // namespace quorbit
