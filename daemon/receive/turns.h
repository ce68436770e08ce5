// Whose turn it is to be read, when more have sent than can be read at once.
#pragma once

#include "base/shares.h"

#include <algorithm>
#include <deque>

namespace quorbit {

// Connections that wait: accounts take turns, and within an account its connections in the order in which they came.
class Turns {
public:
	bool empty() const { return accounts_.empty(); }

	// A connection waits once: it is not to be added again before next() has returned it.
	void add(const Sender &sender)
	{
		auto account = std::find_if(
			accounts_.begin(), accounts_.end(), [&](const Account &waiting) { return waiting.id == sender.account; });
		if (account == accounts_.end()) account = accounts_.insert(accounts_.end(), Account{sender.account, {}});
		account->connections.push_back(sender.connection);
	}

	// The connection whose turn it is; it may be closed by now. To be called when there is one.
	uint64_t next()
	{
		Account account = std::move(accounts_.front());
		accounts_.pop_front();
		uint64_t connection = account.connections.front();
		account.connections.pop_front();
		if (!account.connections.empty()) accounts_.push_back(std::move(account));
		return connection;
	}

private:
	struct Account {
		uint32_t id;
		std::deque<uint64_t> connections;
	};
	std::deque<Account> accounts_;
};

} // namespace quorbit
