// A ClickHouse server over HTTP.
#pragma once

#include "base/store_url.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quorbit {

// `sent`: the server may have done what it was asked, because it was reached.
struct ClickHouseError : std::runtime_error {
	ClickHouseError(const std::string &what, bool sent) : std::runtime_error(what), sent(sent) {}
	const bool sent;
};

// Bytes compressed as they come, so that only the compressed ones take memory.
class Gzip {
public:
	Gzip();
	~Gzip();
	Gzip(const Gzip &) = delete;
	Gzip &operator=(const Gzip &) = delete;

	void add(std::string_view bytes);
	std::string finish(); // all of it; nothing may be added afterwards
	size_t taken() const { return taken_; }

private:
	void compress(std::string_view bytes, bool last);

	struct Stream;
	std::unique_ptr<Stream> stream_;
	std::string compressed_;
	size_t taken_ = 0;
};

// Every call throws ClickHouseError, whose message names the server's address and never an account or password.
// One thread at a time.
class ClickHouse {
public:
	// `stopping` ends a call that is under way, once it is true; it must outlive this object. `most_time` is what a
	// call may take; connecting to one of the hosts 3 s. `most_answer` bounds an answer, in bytes: all but readers ask
	// for less than 1 MiB.
	ClickHouse(StoreUrl url, std::chrono::seconds most_time, const std::atomic<bool> *stopping = nullptr,
		size_t most_answer = size_t{16} << 20);
	~ClickHouse();
	ClickHouse(const ClickHouse &) = delete;
	ClickHouse &operator=(const ClickHouse &) = delete;

	// The answer to a statement, in the format that it names. Of several hosts the one that answered last is asked
	// first, and where none can be connected to, the next.
	std::string ask(const std::string &sql);
	// The same of the host of this number alone.
	std::string ask_host(size_t host, const std::string &sql);
	// Inserts rows: `into` is "table (columns)", `rows` RowBinary, compressed with gzip. `id` is what the query is
	// called in system.processes while it runs.
	void insert(const std::string &into, const std::string &rows, const std::string &id);

	const StoreUrl &url() const { return url_; }

private:
	struct Request;
	std::string send(const Request &request);
	std::string send_to(size_t host, const Request &request);

	const StoreUrl url_;
	const std::chrono::seconds most_time_;
	const std::atomic<bool> *stopping_;
	const size_t most_answer_;
	size_t host_ = 0; // the one that answered last
	void *curl_;      // kept for its connection
};

// A text as a literal of ClickHouse's SQL.
std::string quoted(std::string_view text);

} // namespace quorbit
