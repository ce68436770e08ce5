// Buffers of a connection, out of the budget of all.
#include "receive/connection.h"

#include <cstring>
#include <utility>

namespace quorbit {

Connection::~Connection()
{
	budget_.give_back(sender, room_ + answer_.size());
}

// Whether the header is complete.
bool Connection::take_header(std::string_view &bytes)
{
	size_t count = std::min(header_size - header_bytes_, bytes.size());
	memcpy(header_ + header_bytes_, bytes.data(), count);
	bytes.remove_prefix(count);
	header_bytes_ += count;
	return header_bytes_ == header_size;
}

const char *Connection::begin_body()
{
	Header header = read_header(header_);
	bool packet =
		header.type == record_thread_profile || header.type == record_app_info || header.type == record_metric;
	if (!packet) return "sent something that is not a packet";
	type_ = header.type;
	length_ = header.length;
	records_ = RecordWalk(header.length);
	return nullptr;
}

bool Connection::keep_partial(std::string_view bytes)
{
	// What a header announces is believed by degrees: four times what has come.
	constexpr size_t least = size_t{64} << 10;
	size_t needed = partial_.size() + bytes.size();
	if (needed > room_) {
		size_t room = std::min(length_, std::max(least, 4 * needed));
		if (!budget_.take(sender, room - room_)) return false;
		room_ = room;
		// Into a new text: one that grows takes twice what it had, and not what is asked for.
		std::string larger;
		larger.reserve(room);
		partial_ = std::move(larger.append(partial_));
	}
	partial_ += bytes;
	return true;
}

// The body, whose memory is the caller's from now on.
std::string Connection::end_packet()
{
	budget_.give_back(sender, std::exchange(room_, 0));
	return std::exchange(partial_, {});
}

bool Connection::keep_answer(std::string_view rest)
{
	if (!budget_.take(sender, rest.size())) return false;
	answer_ = rest;
	answer_sent_ = 0;
	return true;
}

void Connection::answer_sent(size_t bytes)
{
	answer_sent_ += bytes;
	if (answer_sent_ < answer_.size()) return;
	budget_.give_back(sender, answer_.size());
	std::string().swap(answer_);
	answer_sent_ = 0;
}

} // namespace quorbit
