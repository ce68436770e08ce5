// One action of the sample, as the agent would have recorded it: steps that take their time, and the packet of them
// all.
#pragma once

#include "base/json_text.h"

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorbit {

// A place in a script: "file:line" of what called.
struct SamplePlace {
	const char *file;
	int line;
};

// A statement as the application has it; `text` comes with each run. With `rows` the table is read row by row.
struct SampleQuery {
	const char *vendor, *table, *verb, *call;
	SamplePlace place;
	const char *key = nullptr; // the index that it takes; none: it reads all `rows`
	int rows = 1;
};

// What the called application says of its half.
struct SampleCallee {
	std::string application_id, action, tracer_id, transaction_id;
	int64_t duration_us = 0;
};

class SampleAction {
public:
	// `path` is "" for a command-line run.
	SampleAction(std::string application, std::string name, std::string path, std::string script);

	// Calls of the application's own functions; every enter() has its leave().
	void enter(const char *cls, const char *function, SamplePlace place);
	void leave();

	// What takes time, in microseconds.
	void work(int64_t us);
	void ask(const SampleQuery &query, const std::string &text, int64_t us);
	void cache(const char *operation, int64_t us);
	// An outgoing call; `host_and_path` with * for numbers. An error has a message.
	void call(const std::string &host_and_path, SamplePlace place, int64_t us, const SampleCallee *callee = nullptr,
		const std::string &error = "");

	void fail(const char *cls, const std::string &message, SamplePlace place);
	void wait_before(int64_t us) { waited_us_ = us; }
	// The trace's own id, and that of the transaction of several applications, "" for none.
	void identify(const std::string &tracer_id, const std::string &transaction_id = "");

	int64_t duration_us() const { return clock_us_; }
	// The body of its metric packet; with a trace when it took so long, or takes part in a transaction. Once.
	std::string packet(int64_t trace_from_us);

private:
	struct Frame {
		Json node; // without its end and its children, which are in `children`
		Json children = Json::array();
		std::string place; // "class.function(file:line)"
	};

	bool is_web() const { return !path_.empty(); }
	int64_t now_ms() const { return clock_us_ / 1000; }
	Json stack(const std::string &call, SamplePlace place) const;
	void add_node(int64_t begin_us, const std::string &metric, const std::string &url, const char *cls,
		const char *function, Json parameters);
	void add(uint8_t type, std::string_view body);
	std::string details() const;

	const std::string application_, name_, path_, script_;
	std::string calls_, places_, runs_;   // records and items as they were made
	std::vector<std::string> place_keys_; // by number
	std::string error_, failed_calls_, transaction_id_, tracer_id_, body_;
	std::vector<Frame> frames_;
	std::string statements_;
	int64_t clock_us_ = 0, database_us_ = 0, cache_us_ = 0, external_us_ = 0, waited_us_ = -1;
	int64_t queries_ = 0, operations_ = 0, outgoing_ = 0;
	int status_ = 200;
};

} // namespace quorbit
