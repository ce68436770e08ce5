// Taking and giving back.
#include "base/shares.h"

#include <algorithm>

namespace quorbit {

namespace {

constexpr size_t times_free = 8;

template <typename Key>
size_t held(const std::unordered_map<Key, size_t> &holders, Key key)
{
	auto found = holders.find(key);
	return found == holders.end() ? 0 : found->second;
}

template <typename Key>
void drop(std::unordered_map<Key, size_t> &holders, Key key, size_t bytes)
{
	auto found = holders.find(key);
	if (found->second == bytes)
		holders.erase(found);
	else
		found->second -= bytes;
}

} // namespace

bool Shares::take(const Sender &sender, size_t bytes)
{
	size_t free = most_bytes_ - used_bytes_;
	size_t by_account = held(accounts_, sender.account), by_connection = held(connections_, sender.connection);
	size_t most_of_account = times_free * free;
	if (bytes > free || by_account + bytes > most_of_account) return false;
	size_t free_for_account = std::min(free, most_of_account - by_account);
	if (by_connection + bytes > times_free * free_for_account) return false;
	if (bytes == 0) return true;
	used_bytes_ += bytes;
	accounts_[sender.account] += bytes;
	connections_[sender.connection] += bytes;
	return true;
}

void Shares::give_back(const Sender &sender, size_t bytes)
{
	if (bytes == 0) return;
	used_bytes_ -= bytes;
	drop(accounts_, sender.account, bytes);
	drop(connections_, sender.connection, bytes);
}

} // namespace quorbit
