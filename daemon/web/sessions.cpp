// Tokens and sessions.
#include "web/sessions.h"

#include <algorithm>
#include <cerrno>
#include <sys/random.h>
#include <system_error>

namespace quorbit {

std::string random_token()
{
	unsigned char bytes[24];
	if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
		throw std::system_error(errno, std::generic_category(), "getrandom");
	std::string token;
	for (unsigned char byte : bytes) {
		token += "0123456789abcdef"[byte >> 4];
		token += "0123456789abcdef"[byte & 15];
	}
	return token;
}

bool equal_secrets(std::string_view a, std::string_view b)
{
	if (b.empty()) return false;
	volatile unsigned char differences = a.size() != b.size();
	for (size_t i = 0; i < a.size(); i++)
		differences = differences | static_cast<unsigned char>(a[i] ^ b[i % b.size()]);
	return differences == 0;
}

Entry Sessions::judge(bool right, int64_t now_ms)
{
	std::erase_if(wrong_, [now_ms](int64_t at_ms) { return at_ms <= now_ms - pause_ms; });
	if (wrong_.size() >= wrong_ones) return Entry::paused;
	if (right) return Entry::granted;
	wrong_.push_back(now_ms);
	return Entry::refused;
}

Entry Sessions::check(std::string_view token, int64_t now_ms)
{
	std::lock_guard lock(mutex_);
	return judge(equal_secrets(token, access_token_), now_ms);
}

Entry Sessions::open(std::string_view token, int64_t now_ms, Session &session)
{
	std::lock_guard lock(mutex_);
	const bool link = equal_secrets(token, link_token_) && !link_used_;
	const Entry entry = judge(link || equal_secrets(token, access_token_), now_ms);
	if (entry != Entry::granted) return entry;
	link_used_ = link_used_ || link;
	make_room(now_ms);
	session = {random_token(), random_token()};
	kept_[session.cookie] = {session, now_ms};
	return entry;
}

std::optional<Session> Sessions::find(const std::string &cookie, int64_t now_ms)
{
	std::lock_guard lock(mutex_);
	auto found = kept_.find(cookie);
	if (found == kept_.end() || found->second.used_ms <= now_ms - idle_ms) return std::nullopt;
	found->second.used_ms = now_ms;
	return found->second.session;
}

void Sessions::close(const std::string &cookie)
{
	std::lock_guard lock(mutex_);
	kept_.erase(cookie);
}

void Sessions::make_room(int64_t now_ms)
{
	std::erase_if(kept_, [now_ms](const auto &entry) { return entry.second.used_ms <= now_ms - idle_ms; });
	if (kept_.size() < most_sessions) return;
	kept_.erase(std::min_element(
		kept_.begin(), kept_.end(), [](const auto &a, const auto &b) { return a.second.used_ms < b.second.used_ms; }));
}

} // namespace quorbit
