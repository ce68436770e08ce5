// One agent's connection: bytes in, complete packets out, and the answer that waits to be taken.
#pragma once

#include "base/shares.h"
#include "facts/wire.h"

#include <algorithm>

namespace quorbit {

// The buffers of one connection, without the socket. An idle connection holds no memory of its own.
class Connection {
public:
	// `budget` is what all connections share for packets not yet whole and answers not yet taken.
	Connection(int descriptor, int64_t process, const Sender &sender, Shares &budget)
		: descriptor(descriptor), process(process), sender(sender), budget_(budget)
	{
	}
	~Connection();
	Connection(const Connection &) = delete;
	Connection &operator=(const Connection &) = delete;

	// Takes received bytes and calls on_packet(type, body) for every packet that is now complete, with a std::string to
	// keep, in which records are known to fill the body exactly. What follows the last complete packet is kept. Returns
	// what is wrong with the bytes or with a packet (on_packet's result), after which the connection cannot be used any
	// more; null when nothing is.
	template <typename OnPacket>
	const char *receive(std::string_view bytes, OnPacket on_packet);

	// The part of the answer not yet taken by the agent. At most one answer waits: until it is taken nothing is
	// received.
	std::string_view waiting_answer() const { return std::string_view(answer_).substr(answer_sent_); }
	bool has_partial_packet() const { return header_bytes_ > 0; }
	bool is_busy() const { return has_partial_packet() || !answer_.empty(); }

	// Keeps what could not be sent of an answer. False when the budget is spent.
	bool keep_answer(std::string_view rest);
	void answer_sent(size_t bytes);

	const int descriptor;
	const int64_t process; // id of the process at the other end
	const Sender sender;
	std::string application;       // that it last asked for, "" before that
	int64_t busy_since_second = 0; // monotonic; when is_busy(), since when
	// For the event loop: whether there may be something to receive, whether the agent has hung up (so that there is,
	// if only the end), and whether it waits for its turn.
	bool readable = false, hung_up = false, has_turn = false;

private:
	bool take_header(std::string_view &bytes);
	const char *begin_body();
	bool keep_partial(std::string_view bytes);
	std::string end_packet();

	Shares &budget_;
	char header_[header_size];
	size_t header_bytes_ = 0;
	uint8_t type_ = 0;
	size_t length_ = 0;   // of the body, when the header is complete
	RecordWalk records_;  // of the body, as far as it has come
	std::string partial_; // the body, as far as it has come
	size_t room_ = 0;     // what partial_ takes and is charged for
	std::string answer_;
	size_t answer_sent_ = 0;
};

template <typename OnPacket>
const char *Connection::receive(std::string_view bytes, OnPacket on_packet)
{
	constexpr const char *overrun = "sent a packet whose records do not fit into it";
	while (!bytes.empty()) {
		if (header_bytes_ < header_size) {
			if (!take_header(bytes)) return nullptr;
			if (const char *fault = begin_body()) return fault;
		}
		std::string_view piece = bytes.substr(0, length_ - partial_.size());
		bytes.remove_prefix(piece.size());
		if (!records_.pass(piece)) return overrun;
		bool whole = partial_.size() + piece.size() == length_;
		if (whole && !records_.at_end()) return overrun;
		// A packet that came in one piece is copied from where it lies.
		bool joined = !whole || !partial_.empty();
		if (joined && !keep_partial(piece)) return "dropped: holds more than its share of what may be half received";
		if (!whole) return nullptr;
		std::string body = joined ? end_packet() : std::string(piece);
		header_bytes_ = 0;
		if (const char *fault = on_packet(type_, std::move(body))) return fault;
	}
	return nullptr;
}

} // namespace quorbit
