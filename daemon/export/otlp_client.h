// A receiver of OTLP over HTTP, and what its answers mean.
#pragma once

#include "export/otlp_body.h"

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace quorbit {

// A body did not arrive. What `may_be_tried` may be sent again, after `pause` where the receiver named one.
struct OtlpError : std::runtime_error {
	OtlpError(const std::string &what, bool may_be_tried, std::chrono::seconds pause = {})
		: std::runtime_error(what), may_be_tried(may_be_tried), pause(pause)
	{
	}
	const bool may_be_tried;
	const std::chrono::seconds pause;
};

// The lines of "name=value,name=value", where values may have %2C and the like, as header lines. Throws
// std::runtime_error, whose message repeats nothing of the text.
std::vector<std::string> otlp_headers(std::string_view text);

// One thread at a time.
class OtlpClient {
public:
	// `url` is what "/v1/traces" is appended to. `stopping` ends a call that is under way, and outlives this object.
	OtlpClient(std::string url, std::vector<std::string> headers, OtlpFormat format, const std::atomic<bool> *stopping);
	~OtlpClient();
	OtlpClient(const OtlpClient &) = delete;
	OtlpClient &operator=(const OtlpClient &) = delete;

	// Sends a body, compressed with gzip, to "/v1/traces" or "/v1/metrics". Throws OtlpError.
	void send(const char *path, const std::string &body);

private:
	const std::string url_;
	const std::vector<std::string> headers_;
	const OtlpFormat format_;
	const std::atomic<bool> *stopping_;
	void *curl_;
};

} // namespace quorbit
