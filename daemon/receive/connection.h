// One agent's connection: bytes in, whole packets out, and the answer that waits to be taken.
#pragma once

#include "facts/wire.h"

#include <memory>

namespace quorbit {

// What all connections may hold together of packets not yet whole and answers not yet taken.
struct BufferBudget {
	size_t most_bytes;
	size_t used_bytes = 0;
};

// The buffers of one connection, without the socket. An idle connection holds no memory of its own.
class Connection {
public:
	Connection(int descriptor, int64_t process, BufferBudget &budget)
		: descriptor(descriptor), process(process), budget_(budget)
	{
	}
	~Connection();
	Connection(const Connection &) = delete;
	Connection &operator=(const Connection &) = delete;

	// Takes received bytes and calls on_packet(type, body) for every packet that is whole now. What follows the last
	// whole packet is kept. Returns what is wrong with the bytes or with a packet (on_packet's result), after which the
	// connection is of no more use; null when nothing is.
	template <typename OnPacket>
	const char *receive(std::string_view bytes, OnPacket on_packet);

	// The part of the answer not yet taken by the agent. At most one answer waits: until it is taken nothing is
	// received.
	std::string_view waiting_answer() const { return std::string_view(answer_).substr(answer_sent_); }
	bool has_partial_packet() const { return !partial_.empty(); }
	bool is_busy() const { return has_partial_packet() || !answer_.empty(); }

	// Keeps what could not be sent of an answer. False when the budget is spent.
	bool keep_answer(std::string_view rest);
	void answer_sent(size_t bytes);

	const int descriptor;
	const int64_t process;         // id of the process at the other end
	int64_t busy_since_second = 0; // monotonic; when is_busy(), since when

private:
	static bool is_packet_type(uint8_t type)
	{
		return type == record_thread_profile || type == record_app_info || type == record_metric;
	}
	bool keep_partial(std::string_view bytes);
	void drop_partial(size_t bytes); // off the front
	void charge();

	BufferBudget &budget_;
	size_t charged_bytes_ = 0;
	std::string partial_;
	std::string answer_;
	size_t answer_sent_ = 0;
};

template <typename OnPacket>
const char *Connection::receive(std::string_view bytes, OnPacket on_packet)
{
	constexpr const char *over_budget = "dropped: too much is half received";
	// Bytes that end a packet begun earlier are joined to it; all others are read where they lie.
	bool joined = !partial_.empty();
	if (joined && !keep_partial(bytes)) return over_budget;
	std::string_view unread = joined ? std::string_view(partial_) : bytes;
	while (unread.size() >= header_size) {
		Header header = read_header(unread.data());
		if (!is_packet_type(header.type)) return "sent something that is no packet";
		if (unread.size() < header_size + header.length) break;
		std::string_view body = unread.substr(header_size, header.length);
		unread.remove_prefix(header_size + header.length);
		if (const char *fault = on_packet(header.type, body)) return fault;
	}
	if (joined)
		drop_partial(partial_.size() - unread.size());
	else if (!unread.empty() && !keep_partial(unread))
		return over_budget;
	return nullptr;
}

} // namespace quorbit
