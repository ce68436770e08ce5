// Sending by libcurl. Of an answer only its status and Retry-After count: what receivers write into its body is for
// people.
#include "export/otlp_client.h"

#include "store/clickhouse.h"

#include <algorithm>
#include <curl/curl.h>

namespace quorbit {

namespace {

constexpr long connect_ms = 3000, most_seconds = 10; // OTLP's own default is 10 s as well
constexpr std::chrono::seconds longest_pause(300);
constexpr curl_off_t most_answer = 1 << 20;

size_t count(char *, size_t size, size_t items, void *taken)
{
	auto &bytes = *static_cast<curl_off_t *>(taken);
	bytes += static_cast<curl_off_t>(size * items);
	return bytes > most_answer ? 0 : size * items; // 0 ends it
}

int stops(void *stopping, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
	return static_cast<const std::atomic<bool> *>(stopping)->load() ? 1 : 0;
}

struct HeaderList {
	curl_slist *list = nullptr;
	~HeaderList() { curl_slist_free_all(list); }
	void add(const std::string &line) { list = curl_slist_append(list, line.c_str()); }
};

// The retryable codes of OTLP over HTTP: https://opentelemetry.io/docs/specs/otlp/#retryable-response-codes
bool may_be_tried(long status)
{
	return status == 429 || status == 502 || status == 503 || status == 504;
}

} // namespace

std::vector<std::string> otlp_headers(std::string_view text)
{
	std::vector<std::string> lines;
	while (!text.empty()) {
		const std::string_view item = text.substr(0, text.find(','));
		text.remove_prefix(std::min(text.size(), item.size() + 1));
		const size_t equals = item.find('=');
		if (equals == std::string_view::npos || equals == 0)
			throw std::runtime_error("expected headers as name=value, with commas between them");
		int length = 0;
		char *value =
			curl_easy_unescape(nullptr, item.data() + equals + 1, static_cast<int>(item.size() - equals - 1), &length);
		const std::string line =
			std::string(item.substr(0, equals)) + ": " + std::string(value, static_cast<size_t>(length));
		curl_free(value);
		if (std::any_of(line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 127; }))
			throw std::runtime_error("a header has a character that none may have");
		lines.push_back(line);
	}
	return lines;
}

OtlpClient::OtlpClient(
	std::string url, std::vector<std::string> headers, OtlpFormat format, const std::atomic<bool> *stopping)
	: url_(std::move(url)), headers_(std::move(headers)), format_(format), stopping_(stopping), curl_(curl_easy_init())
{
	if (!curl_) throw std::bad_alloc();
}

OtlpClient::~OtlpClient()
{
	curl_easy_cleanup(curl_);
}

void OtlpClient::send(const char *path, const std::string &body)
{
	CURL *curl = curl_;
	curl_easy_reset(curl);
	Gzip gzip;
	gzip.add(body);
	const std::string bytes = gzip.finish(), address = url_ + path;
	HeaderList headers;
	for (const std::string &line : headers_) headers.add(line);
	headers.add(std::string("Content-Type: ") + content_type_of(format_));
	headers.add("Content-Encoding: gzip");
	headers.add("Expect:");
	curl_off_t taken = 0;
	curl_easy_setopt(curl, CURLOPT_URL, address.c_str());
	curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
	curl_easy_setopt(curl, CURLOPT_NOPROXY, "*"); // the daemon has the environment of whatever PHP started it
	curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
	curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.list);
	curl_easy_setopt(curl, CURLOPT_POSTFIELDS, bytes.data());
	curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bytes.size()));
	curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, connect_ms);
	curl_easy_setopt(curl, CURLOPT_TIMEOUT, most_seconds);
	curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, count);
	curl_easy_setopt(curl, CURLOPT_WRITEDATA, &taken);
	curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
	curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, stops);
	curl_easy_setopt(curl, CURLOPT_XFERINFODATA, const_cast<std::atomic<bool> *>(stopping_));
	const CURLcode code = curl_easy_perform(curl);
	long status = 0;
	curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
	if (code != CURLE_OK && !(code == CURLE_WRITE_ERROR && status))
		throw OtlpError(std::string(curl_easy_strerror(code)), true);
	if (status >= 200 && status < 300) return;
	curl_off_t pause = 0;
	curl_easy_getinfo(curl, CURLINFO_RETRY_AFTER, &pause);
	throw OtlpError("status " + std::to_string(status), may_be_tried(status),
		std::min(std::chrono::seconds(std::max(pause, curl_off_t{0})), longest_pause));
}

} // namespace quorbit
