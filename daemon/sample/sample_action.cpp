// Steps become the records of docs/protocol.md.
#include "sample/sample_action.h"

#include "facts/wire.h"

#include <algorithm>
#include <cstring>

namespace quorbit {

namespace {

constexpr int64_t explained_us = 5000; // a statement that takes so long has a stack and a plan

std::string number(int64_t value)
{
	const auto cut = static_cast<int32_t>(value);
	return {reinterpret_cast<const char *>(&cut), sizeof cut};
}

std::string item(const std::string &text)
{
	return std::to_string(text.size()) + ":" + text;
}

void add_figure(std::string &out, uint8_t type, int64_t value)
{
	append_record(out, type, {reinterpret_cast<const char *>(&value), sizeof value});
}

std::string line_of(SamplePlace place)
{
	return std::string(place.file) + ":" + std::to_string(place.line);
}

// "http:%2F%2Fstock%2Fitem" of "http://stock/item"
std::string escaped(const std::string &url)
{
	std::string out;
	for (char byte : url) out += byte == '/' ? std::string("%2F") : std::string(1, byte);
	return out;
}

Json mysql_plan(const SampleQuery &query)
{
	const bool scans = !query.key;
	const Json key = scans ? Json() : Json(query.key), length = scans ? Json() : Json("4"),
			   ref = scans ? Json() : Json("const");
	return {{"dialect", "MySQL"},
		{"keys",
			{"id", "select_type", "table", "type", "possible_keys", "key", "key_len", "ref", "rows", "filtered",
				"Extra"}},
		{"values",
			Json::array({Json::array({"1", "SIMPLE", query.table, scans ? "ALL" : "ref", key, key, length, ref,
				std::to_string(query.rows), "100.00", scans ? "Using where" : ""})})}};
}

} // namespace

SampleAction::SampleAction(std::string application, std::string name, std::string path, std::string script)
	: application_(std::move(application)), name_(std::move(name)), path_(std::move(path)), script_(std::move(script))
{
	frames_.push_back({{0, 0, "", "", 1, "PHP", "execute", Json::object()}, Json::array(), ""});
}

void SampleAction::enter(const char *cls, const char *function, SamplePlace place)
{
	const std::string name = *cls ? std::string(cls) + "." + function : function;
	const Json parameters = {{"partialtrace", Json::array({name + "(" + line_of(place) + ")"})}};
	frames_.push_back(
		{{now_ms(), 0, "", "", 1, cls, function, parameters}, Json::array(), name + "(" + line_of(place) + ")"});
}

void SampleAction::leave()
{
	Frame frame = std::move(frames_.back());
	frames_.pop_back();
	frame.node[1] = now_ms();
	frame.node.push_back(std::move(frame.children));
	frames_.back().children.push_back(std::move(frame.node));
}

void SampleAction::work(int64_t us)
{
	clock_us_ += us;
}

Json SampleAction::stack(const std::string &call, SamplePlace place) const
{
	Json frames = Json::array({call + "(" + line_of(place) + ")"});
	for (auto frame = frames_.rbegin(); frame != frames_.rend(); ++frame) {
		if (!frame->place.empty()) frames.push_back(frame->place);
	}
	return frames;
}

void SampleAction::add_node(int64_t begin_us, const std::string &metric, const std::string &url, const char *cls,
	const char *function, Json parameters)
{
	if (clock_us_ - begin_us < 1000) return; // as agents do
	frames_.back().children.push_back(
		{begin_us / 1000, now_ms(), metric, url, 1, cls, function, std::move(parameters), Json::array()});
}

void SampleAction::ask(const SampleQuery &query, const std::string &text, int64_t us)
{
	const int64_t begin_us = clock_us_;
	clock_us_ += us;
	database_us_ += us;
	queries_++;
	std::string body = item(std::to_string(us / 1000)) + item(query.vendor) + item(text);
	const char *dot = strchr(query.call, '.');
	const std::string cls = dot ? std::string(query.call, static_cast<size_t>(dot - query.call)) : "";
	Json parameters = {{"sql", text}};
	if (us >= explained_us) {
		parameters["stacktrace"] = stack(query.call, query.place);
		body += item(parameters["stacktrace"].dump());
	}
	if (us >= explained_us && strcmp(query.vendor, "MySQL") == 0) {
		parameters["explainPlan"] = mysql_plan(query);
		body += item(parameters["explainPlan"].dump());
	}
	append_record(statements_, record_sql, body);
	add_node(begin_us, std::string("Database ") + query.vendor + "/" + query.table + "/" + query.verb, "", cls.c_str(),
		dot ? dot + 1 : query.call, std::move(parameters));

	const std::string key = line_of(query.place) + query.vendor;
	auto found = std::find(place_keys_.begin(), place_keys_.end(), key);
	const auto place = static_cast<uint16_t>(found - place_keys_.begin());
	if (found == place_keys_.end()) {
		place_keys_.push_back(key);
		append_record(places_, 0x20,
			number(query.place.line) + static_cast<char>(strlen(query.vendor)) + query.vendor + query.place.file);
	}
	const uint16_t run[] = {1, place};
	runs_.append(reinterpret_cast<const char *>(run), sizeof run);
}

void SampleAction::cache(const char *operation, int64_t us)
{
	clock_us_ += us;
	cache_us_ += us;
	operations_++;
	append_record(calls_, record_service, std::string("Redis\n\n") + operation + "\n" + std::to_string(us / 1000));
	add_node(clock_us_ - us, "", "", "Redis", operation, Json::object());
}

void SampleAction::call(const std::string &host_and_path, SamplePlace place, int64_t us, const SampleCallee *callee,
	const std::string &error)
{
	const int64_t begin_us = clock_us_;
	clock_us_ += us;
	external_us_ += us;
	outgoing_++;
	const std::string url = "http://" + host_and_path, name = escaped(url) + "/curl_exec";
	std::string body = "http\n" + name + "\n\n" + std::to_string(us / 1000);
	Json parameters = {{"partialtrace", Json::array({"curl_exec(" + line_of(place) + ")"})}};
	if (callee) {
		body += "\n" + callee->application_id + "\n" + callee->action;
		parameters["txId"] = callee->transaction_id;
		const int64_t took_ms = callee->duration_us / 1000;
		parameters["txData"] = {{"id", callee->application_id}, {"action", callee->action}, {"tr", 1},
			{"trId", callee->tracer_id},
			{"time",
				{{"duration", took_ms}, {"qu", 0}, {"db", took_ms / 2}, {"ex", 0}, {"rds", 0}, {"mc", 0}, {"mon", 0},
					{"code", took_ms - took_ms / 2}}}};
	}
	append_record(calls_, record_service, body);
	if (!error.empty()) {
		append_record(failed_calls_, record_service_error,
			"External/" + name + "\n1000\n\n" + error + "\n\n" + stack("curl_exec", place).dump());
	}
	add_node(begin_us, "External/" + name, url, "", "curl_exec", std::move(parameters));
}

void SampleAction::fail(const char *cls, const std::string &message, SamplePlace place)
{
	status_ = is_web() ? 500 : 0;
	const std::string head = "1\n" + std::to_string(status_) + "\n" + cls + "\n" + message + "\n";
	append_record(error_ = {}, record_error, head + stack("Exception", place).dump());
}

void SampleAction::identify(const std::string &tracer_id, const std::string &transaction_id)
{
	tracer_id_ = tracer_id;
	transaction_id_ = transaction_id;
}

void SampleAction::add(uint8_t type, std::string_view body)
{
	append_record(body_, type, body);
}

std::string SampleAction::details() const
{
	std::string out;
	const std::pair<uint8_t, int64_t> figures[] = {{0x01, clock_us_}, {0x02, database_us_}, {0x03, cache_us_},
		{0x04, external_us_}, {0x06, queries_}, {0x07, operations_}, {0x08, outgoing_},
		{0x09, (clock_us_ - database_us_ - cache_us_ - external_us_) * 9 / 10}, {0x0A, clock_us_ / 50},
		{0x0B, (int64_t{6} << 20) + queries_ * 4096}, {0x0C, 14000 + queries_ * 300}};
	for (const auto &[type, value] : figures) add_figure(out, type, value);
	if (waited_us_ >= 0) add_figure(out, 0x05, waited_us_);
	if (is_web()) {
		append_record(out, 0x10, path_);
		append_record(out, 0x11, "GET");
		append_record(out, 0x12, "shop.example");
	} else {
		add_figure(out, 0x0D, 0);
	}
	append_record(out, 0x13, script_);
	if (!runs_.empty()) append_record(out, 0x21, runs_);
	return out + places_;
}

std::string SampleAction::packet(int64_t trace_from_us)
{
	while (frames_.size() > 1) leave(); // what an error has left open
	add(record_application_name, application_);
	add(record_account_key, "empty key");
	add(record_action_name, name_);
	if (is_web()) add(record_uri, script_.substr(script_.rfind('/')));
	add(record_cpu_ticks, number(clock_us_ / 20000));
	add(record_system_cpu_ticks, number(90));
	add(record_block_ms, number(std::max(waited_us_, int64_t{0}) / 1000));
	add(record_duration_ms, number(now_ms()));
	add(record_database_ms, number(database_us_ / 1000));
	body_ += statements_ + calls_;
	if (cache_us_ >= 1000) add(record_cache_total, std::to_string(cache_us_ / 1000) + "\nRedis");
	if (external_us_ >= 1000) add(record_external_ms, number(external_us_ / 1000));
	body_ += error_ + failed_calls_;
	if (clock_us_ >= trace_from_us || !transaction_id_.empty()) {
		Frame &root = frames_.front();
		root.node[1] = now_ms();
		root.node.push_back(std::move(root.children));
		add(record_trace, root.node.dump());
		if (!transaction_id_.empty()) add(record_transaction_id, transaction_id_);
		add(record_tracer_id, tracer_id_);
	}
	if (is_web()) {
		add(record_detail, "user-agent: Mozilla/5.0 (sample)");
		add(record_detail, "httpStatus: " + std::to_string(status_));
	}
	add(record_details, details());
	return body_;
}

} // namespace quorbit
