// Requests by libcurl.
#include "store/clickhouse.h"

#include "base/text.h"

#include <curl/curl.h>
#include <zlib.h>

#include <mutex>

namespace quorbit {

namespace {

constexpr long connect_ms = 3000;
constexpr size_t most_message = 300; // of what a server says of a failure

struct Answer {
	const size_t most;
	std::string body = {};
	bool too_long = false;
};

size_t take(char *bytes, size_t, size_t length, void *into)
{
	auto &answer = *static_cast<Answer *>(into);
	if (answer.body.size() + length > answer.most) {
		answer.too_long = true;
		return 0;
	}
	answer.body.append(bytes, length);
	return length;
}

int stops(void *stopping, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
	return static_cast<const std::atomic<bool> *>(stopping)->load();
}

struct HeaderList {
	curl_slist *list = nullptr;
	~HeaderList() { curl_slist_free_all(list); }
	void add(const std::string &line) { list = curl_slist_append(list, line.c_str()); }
};

std::string escaped(CURL *curl, const std::string &text)
{
	char *found = curl_easy_escape(curl, text.data(), static_cast<int>(text.size()));
	std::string copy = found ? found : "";
	curl_free(found);
	return copy;
}

// The server's message on one line, without the text of the statement that some versions repeat in it.
std::string first_words(const std::string &answer)
{
	std::string text = answer.substr(0, most_message);
	text = text.substr(0, text.find('\n'));
	return cut(printable(text), most_message);
}

} // namespace

struct Gzip::Stream : z_stream {};

Gzip::Gzip() : stream_(new Stream())
{
	constexpr int with_gzip_header = 15 + 16, level = 1, memory = 8;
	if (deflateInit2(stream_.get(), level, Z_DEFLATED, with_gzip_header, memory, Z_DEFAULT_STRATEGY) != Z_OK)
		throw std::bad_alloc();
}

Gzip::~Gzip()
{
	deflateEnd(stream_.get());
}

void Gzip::compress(std::string_view bytes, bool last)
{
	char room[16384];
	stream_->next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data()));
	stream_->avail_in = static_cast<uInt>(bytes.size());
	do {
		stream_->next_out = reinterpret_cast<Bytef *>(room);
		stream_->avail_out = sizeof room;
		deflate(stream_.get(), last ? Z_FINISH : Z_NO_FLUSH);
		compressed_.append(room, sizeof room - stream_->avail_out);
	} while (stream_->avail_out == 0);
}

void Gzip::add(std::string_view bytes)
{
	taken_ += bytes.size();
	compress(bytes, false);
}

std::string Gzip::finish()
{
	compress({}, true);
	return std::move(compressed_);
}

struct ClickHouse::Request {
	std::string parameters; // of the address, each after a "&"
	const std::string &body;
	bool compressed = false;
};

ClickHouse::ClickHouse(
	StoreUrl url, std::chrono::seconds most_time, const std::atomic<bool> *stopping, size_t most_answer)
	: url_(std::move(url)), most_time_(most_time), stopping_(stopping), most_answer_(most_answer)
{
	static std::once_flag once;
	std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
	curl_ = curl_easy_init();
	if (!curl_) throw std::bad_alloc();
}

ClickHouse::~ClickHouse()
{
	curl_easy_cleanup(curl_);
}

std::string ClickHouse::send_to(size_t host, const Request &request)
{
	CURL *curl = curl_;
	curl_easy_reset(curl);
	const std::string server = url_.address(host);
	const std::string address = server + "/?database=" + url_.database + "&wait_end_of_query=1" + request.parameters;
	HeaderList headers;
	headers.add("Content-Type: application/octet-stream");
	headers.add("Expect:"); // not asked for: it costs a turn
	if (!url_.user.empty()) headers.add("X-ClickHouse-User: " + url_.user);
	if (!url_.password.empty()) headers.add("X-ClickHouse-Key: " + url_.password);
	if (request.compressed) headers.add("Content-Encoding: gzip");
	Answer answer{most_answer_};
	curl_easy_setopt(curl, CURLOPT_URL, address.c_str());
	curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
	curl_easy_setopt(curl, CURLOPT_NOPROXY, "*"); // the daemon has the environment of whatever PHP started it
	curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
	curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.list);
	curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
	curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
	curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, connect_ms);
	curl_easy_setopt(curl, CURLOPT_TIMEOUT, static_cast<long>(most_time_.count()));
	curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, take);
	curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
	if (stopping_) {
		curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
		curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, stops);
		curl_easy_setopt(curl, CURLOPT_XFERINFODATA, const_cast<std::atomic<bool> *>(stopping_));
	}
	const CURLcode code = curl_easy_perform(curl);
	if (answer.too_long)
		throw ClickHouseError(
			server + ": the answer is larger than " + std::to_string(most_answer_ >> 20) + " MiB", true);
	if (code != CURLE_OK) {
		curl_off_t connected_us = 0;
		curl_easy_getinfo(curl, CURLINFO_PRETRANSFER_TIME_T, &connected_us);
		throw ClickHouseError(server + ": " + curl_easy_strerror(code), connected_us > 0);
	}
	long status = 0;
	curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
	if (status != 200)
		throw ClickHouseError(server + ": status " + std::to_string(status) + ": " + first_words(answer.body), true);
	return std::move(answer.body);
}

std::string ClickHouse::send(const Request &request)
{
	for (size_t tried = 0;; tried++) {
		try {
			return send_to(host_, request);
		} catch (const ClickHouseError &failure) {
			if (failure.sent || tried + 1 == url_.hosts.size()) throw;
			host_ = (host_ + 1) % url_.hosts.size();
		}
	}
}

std::string ClickHouse::ask(const std::string &sql)
{
	return send({"", sql});
}

std::string ClickHouse::ask_host(size_t host, const std::string &sql)
{
	return send_to(host, {"", sql});
}

void ClickHouse::insert(const std::string &into, const std::string &rows, const std::string &id)
{
	const std::string sql = "INSERT INTO " + into + " FORMAT RowBinary";
	// Of a cluster's table the rows have to be on their shards when this returns.
	send({"&query_id=" + escaped(curl_, id) + "&insert_distributed_sync=1&query=" + escaped(curl_, sql), rows, true});
}

std::string quoted(std::string_view text)
{
	std::string out = "'";
	for (char c : text) {
		if (c == '\0')
			out += "\\0";
		else if (c == '\'' || c == '\\')
			out.append(1, '\\').append(1, c);
		else
			out += c;
	}
	return out + "'";
}

} // namespace quorbit
