// A bound on memory that many senders share, so that none of them can fill it against the others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace quorbit {

// Whose packet it is: the account at the other end of the socket, and the connection, which has a number of its own.
struct Sender {
	uint32_t account = 0;
	uint64_t connection = 0;
};

// Bytes that are taken and given back. An account may hold up to eight times what is free, and a connection up to eight
// times what is free for its account: one alone gets eight ninths, several that want all of it get equal parts, and
// there is always a rest for those who hold little. (Dynamic thresholds, as switches share the memory of their ports.)
// One thread at a time.
class Shares {
public:
	explicit Shares(size_t most_bytes) : most_bytes_(most_bytes) {}

	// False, with nothing taken, when it would be more than the sender's share.
	bool take(const Sender &sender, size_t bytes);
	void give_back(const Sender &sender, size_t bytes);

	size_t used_bytes() const { return used_bytes_; }

private:
	const size_t most_bytes_;
	size_t used_bytes_ = 0;
	std::unordered_map<uint32_t, size_t> accounts_;    // what they hold; those that hold nothing are not there
	std::unordered_map<uint64_t, size_t> connections_; // likewise
};

} // namespace quorbit
