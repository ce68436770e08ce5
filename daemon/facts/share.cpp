// Cutting a packet to its share.
#include "facts/share.h"

#include "base/number.h"
#include "facts/record_kinds.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace quorbit {

namespace {

constexpr size_t most_text_bytes = 16384; // of an error, a name or an id
constexpr size_t most_cache_totals = 64;  // one for each product
constexpr size_t most_details_bytes = 65536;

RecordClass class_of(const Record &record)
{
	const RecordKind *kind = record_kind(record.type);
	// The status is what an error is told by, and the sums of an action of many statements are what it is kept for.
	if (record.type == record_detail && record.body.starts_with("httpStatus: ")) return RecordClass::sum;
	if (!kind || (record.type == record_details && record.body.size() > most_details_bytes)) return RecordClass::text;
	return kind->cls;
}

bool is_listed(const Record &record)
{
	const RecordKind *kind = record_kind(record.type);
	return !kind || kind->listed;
}

// Duration, vendor and text: what a statement is without stack and plan.
std::string_view bare_statement(std::string_view body)
{
	std::string_view rest = body, item;
	for (int i = 0; i < 3; i++) {
		if (!take_item(rest, item)) return body;
	}
	return body.substr(0, body.size() - rest.size());
}

int64_t duration_of(std::string_view statement)
{
	std::string_view item;
	int64_t duration_ms = 0;
	return take_item(statement, item) && parse_number(item, duration_ms) ? duration_ms : 0;
}

class Cutter {
public:
	explicit Cutter(const PacketShare &share) : share_(share) {}

	// The next record of the packet. Of what a packet tells once the last one counts, as where it is read.
	void add(const Record &record)
	{
		const RecordClass its = class_of(record);
		const bool once = its == RecordClass::sum && !is_listed(record);
		size_t &before = last_of_[record.type]; // its place, counted from 1
		const bool many =
			its != RecordClass::sum ? listed_++ >= share_.most_records : !once && totals_++ >= most_cache_totals;
		if (many) return leave_out(record, its);
		if (once && before > 0) {
			leave_out(records_[before - 1], RecordClass::text);
			bytes_ -= bytes_of(records_[before - 1]);
			records_[before - 1] = record;
		} else {
			records_.push_back(record);
			before = records_.size();
		}
		bytes_ += bytes_of(record);
	}

	std::string cut()
	{
		for (Record &record : records_) {
			if (record.type == record_trace && record.body.size() > share_.most_trace_bytes) {
				shorten(record, {});
				left_out_.traces++;
			}
			size_t most = record.type == record_error && !share_.most_bytes ? error_without_stack(record.body)
				: record.type == record_details                             ? most_details_bytes
																			: most_text_bytes;
			if (record.type != record_trace && class_of(record) == RecordClass::sum && record.body.size() > most) {
				shorten(record, record.body.substr(0, most));
				left_out_.texts++;
			}
		}
		drop(RecordClass::parameter);
		drop(RecordClass::text);
		for (Record *record : of_class(RecordClass::statement)) {
			std::string_view bare = bare_statement(record->body);
			if (bytes_ <= share_.most_bytes) break;
			if (bare.size() == record->body.size()) continue;
			shorten(*record, bare);
			left_out_.texts++;
		}
		drop(RecordClass::statement);
		drop(RecordClass::call);
		return text();
	}

private:
	static size_t bytes_of(const Record &record)
	{
		return record.type == record_trace ? 0 : header_size + record.body.size();
	}

	int64_t &count_of(RecordClass its)
	{
		switch (its) {
		case RecordClass::parameter: return left_out_.parameters;
		case RecordClass::statement: return left_out_.statements;
		case RecordClass::call: return left_out_.calls;
		default: return left_out_.texts;
		}
	}

	void leave_out(const Record &record, RecordClass its)
	{
		left_out_.bytes += static_cast<int64_t>(record.body.size());
		count_of(its)++;
	}

	static size_t error_without_stack(std::string_view body)
	{
		size_t end = 0;
		for (int line = 0; line < 4 && end != std::string_view::npos; line++) end = body.find('\n', line ? end + 1 : 0);
		return std::min({end == std::string_view::npos ? body.size() : end + 1, body.size(), most_text_bytes});
	}

	std::vector<Record *> of_class(RecordClass wanted)
	{
		std::vector<Record *> found;
		for (Record &record : records_) {
			if (!record.body.empty() && class_of(record) == wanted) found.push_back(&record);
		}
		return found;
	}

	void shorten(Record &record, std::string_view to)
	{
		left_out_.bytes += static_cast<int64_t>(record.body.size() - to.size());
		if (record.type != record_trace) bytes_ -= record.body.size() - to.size();
		record.body = to;
	}

	// The least worth first: the quickest of statements, the largest of everything else.
	void drop(RecordClass wanted)
	{
		if (bytes_ <= share_.most_bytes) return;
		auto records = of_class(wanted);
		std::stable_sort(records.begin(), records.end(), [wanted](const Record *a, const Record *b) {
			if (wanted != RecordClass::statement) return a->body.size() > b->body.size();
			return duration_of(a->body) < duration_of(b->body);
		});
		for (Record *record : records) {
			if (bytes_ <= share_.most_bytes) return;
			bytes_ -= header_size;
			shorten(*record, {});
			count_of(wanted)++;
		}
	}

	std::string text() const
	{
		std::string out;
		for (const Record &record : records_) {
			// What was not empty before is gone now; a name or an error may be.
			if (!record.body.empty() || class_of(record) == RecordClass::sum) {
				if (record.type != record_trace || !record.body.empty()) append_record(out, record.type, record.body);
			}
		}
		char counts[160];
		snprintf(counts, sizeof counts, "%lld %lld %lld %lld %lld %lld", static_cast<long long>(left_out_.parameters),
			static_cast<long long>(left_out_.texts), static_cast<long long>(left_out_.statements),
			static_cast<long long>(left_out_.calls), static_cast<long long>(left_out_.traces),
			static_cast<long long>(left_out_.bytes));
		append_record(out, record_left_out, counts);
		return out;
	}

	std::vector<Record> records_;
	const PacketShare share_;
	std::array<size_t, 256> last_of_{};
	size_t listed_ = 0, totals_ = 0;
	size_t bytes_ = 0; // without the trace
	LeftOut left_out_;
};

} // namespace

std::optional<std::string> within_share(std::string_view body, const PacketShare &share)
{
	if (body.size() <= share.most_bytes) return std::nullopt;
	Cutter cutter(share);
	if (!for_each_record(body, [&cutter](const Record &record) { cutter.add(record); })) return std::nullopt;
	std::string cut = cutter.cut();
	if (cut.size() >= body.size()) return std::nullopt;
	return cut;
}

bool read_left_out(std::string_view body, LeftOut &left_out)
{
	long long counts[6];
	if (sscanf(std::string(body).c_str(), "%lld %lld %lld %lld %lld %lld", &counts[0], &counts[1], &counts[2],
			&counts[3], &counts[4], &counts[5]) != 6)
		return false;
	left_out = {counts[0], counts[1], counts[2], counts[3], counts[4], counts[5]};
	return true;
}

std::string_view application_of(std::string_view body)
{
	while (body.size() >= header_size) {
		Header header = read_header(body.data());
		if (header.length > body.size() - header_size) break;
		if (header.type == record_application_name) return body.substr(header_size, header.length);
		body.remove_prefix(header_size + header.length);
	}
	return {};
}

} // namespace quorbit
