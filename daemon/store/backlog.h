// What was received and is not written yet. Accounts take turns in being written: one that floods waits behind itself.
#pragma once

#include "base/shares.h"

#include <cstddef>
#include <deque>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quorbit {

// Items of any kind with the member `bytes` and the member `sender`. One thread at a time.
template <typename Item>
class Backlog {
public:
	bool empty() const { return accounts_.empty(); }
	// What an account has here.
	size_t bytes_of(uint32_t account) const
	{
		auto found = accounts_.find(account);
		return found == accounts_.end() ? 0 : found->second.bytes;
	}

	void put(Item item)
	{
		Account &account = accounts_[item.sender.account];
		account.bytes += item.bytes;
		account.items.push_back(std::move(item));
	}

	// Takes items until they have that many bytes, of each account about as many, and its oldest first.
	std::vector<Item> take(size_t most_bytes)
	{
		std::vector<Item> taken;
		std::set<std::pair<size_t, uint32_t>> turns; // bytes taken, of whom
		for (const auto &[number, account] : accounts_) turns.emplace(0, number);
		for (size_t bytes = 0; !turns.empty() && bytes < most_bytes;) {
			auto [of_account, number] = *turns.begin();
			turns.erase(turns.begin());
			auto found = accounts_.find(number);
			Account &account = found->second;
			const size_t next = account.items.front().bytes;
			taken.push_back(std::move(account.items.front()));
			account.items.pop_front();
			account.bytes -= next;
			bytes += next;
			if (account.items.empty())
				accounts_.erase(found);
			else
				turns.emplace(of_account + next, number);
		}
		return taken;
	}

private:
	struct Account {
		std::deque<Item> items;
		size_t bytes = 0;
	};
	std::unordered_map<uint32_t, Account> accounts_; // those that have items
};

} // namespace quorbit
