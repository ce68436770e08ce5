// Buffers of a connection and their common budget.
#include "receive/connection.h"

#include <algorithm>

namespace quorbit {

Connection::~Connection()
{
	budget_.used_bytes -= charged_bytes_;
}

void Connection::charge()
{
	// Small strings live inside the object.
	auto held = [](const std::string &text) { return text.capacity() > sizeof text ? text.capacity() : 0; };
	size_t now = held(partial_) + held(answer_);
	budget_.used_bytes = budget_.used_bytes - charged_bytes_ + now;
	charged_bytes_ = now;
}

bool Connection::keep_partial(std::string_view bytes)
{
	size_t needed = partial_.size() + bytes.size();
	if (needed > partial_.capacity() && partial_.size() >= header_size) {
		// Doubling, but not beyond what the packet will need.
		size_t whole = header_size + read_header(partial_.data()).length;
		partial_.reserve(std::max(needed, std::min(2 * partial_.capacity(), whole)));
	}
	partial_ += bytes;
	charge();
	return budget_.used_bytes <= budget_.most_bytes;
}

void Connection::drop_partial(size_t bytes)
{
	if (bytes == 0) return;
	// Into a string of its own size: what was taken for a large packet is given back.
	partial_ = std::string(partial_, bytes);
	charge();
}

bool Connection::keep_answer(std::string_view rest)
{
	answer_ = rest;
	answer_sent_ = 0;
	charge();
	return budget_.used_bytes <= budget_.most_bytes;
}

void Connection::answer_sent(size_t bytes)
{
	answer_sent_ += bytes;
	if (answer_sent_ < answer_.size()) return;
	std::string().swap(answer_);
	answer_sent_ = 0;
	charge();
}

} // namespace quorbit
