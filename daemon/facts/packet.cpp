// Decoding of metric and thread-profile packets, record by record.
#include "facts/packet.h"

#include "base/number.h"
#include "facts/record_kinds.h"

namespace quorbit {

namespace {

// Takes the next space-separated word off the front of `line`.
std::string_view take_word(std::string_view &line)
{
	size_t blank = line.find(' ');
	std::string_view word = line.substr(0, blank);
	line.remove_prefix(blank == std::string_view::npos ? line.size() : blank + 1);
	return word;
}

bool read_profile_line(std::string_view line, ProfileEvent &event)
{
	if (!parse_number(take_word(line), event.at_ms) || !parse_number(take_word(line), event.thread)) return false;
	std::string_view direction = take_word(line);
	if (direction != "enter" && direction != "leave") return false;
	event.enter = direction == "enter";
	event.kind = take_word(line);
	event.name = line;
	return true;
}

} // namespace

int64_t Action::status() const
{
	for (const NameValue &detail : details) {
		int64_t code = 0;
		if (detail.name == "httpStatus" && parse_number(detail.value, code)) return code;
	}
	return error ? error->status : 0;
}

int64_t Action::code_ms() const
{
	int64_t rest = duration_ms - database_ms - cache_ms - external_ms;
	return rest > 0 ? rest : 0;
}

constexpr size_t most_unknown = 1024;

std::optional<Action> read_action(std::string_view body)
{
	size_t listed = 0;
	Action action;
	std::string_view details;
	bool framed = for_each_record(body, [&](const Record &record) {
		if (record.type == record_details) {
			details = record.body;
			return;
		}
		const RecordKind *kind = record_kind(record.type);
		bool fits = (kind && !kind->listed) || listed++ < most_listed_records;
		if (fits && kind && kind->read(record.body, action)) return;
		if (fits && action.unknown.size() < most_unknown)
			action.unknown.push_back({record.type, std::string(record.body)});
		else
			action.unread++;
	});
	if (!framed) return std::nullopt;
	// Last, wherever it stood: it tells more of what the others brought.
	if (!details.empty() && !read_details(details, action))
		action.unknown.push_back({record_details, std::string(details)});
	return action;
}

std::optional<ProfileEvent> read_profile_event(std::string_view body)
{
	ProfileEvent event;
	bool has_line = false;
	bool framed = for_each_record(body, [&](const Record &record) {
		if (record.type == record_application_name) event.application = record.body;
		if (record.type == record_profile_line) has_line = read_profile_line(record.body, event);
	});
	if (!framed) return std::nullopt;
	if (!has_line) return std::nullopt;
	return event;
}

} // namespace quorbit
