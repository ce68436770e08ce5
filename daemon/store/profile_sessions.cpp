// Orders and running sessions of thread profiles.
#include "store/profile_sessions.h"

#include <algorithm>
#include <ctime>

namespace quorbit {

void ProfileSessions::set_waiting(const std::vector<ProfileOrder> &orders)
{
	std::lock_guard lock(mutex_);
	std::erase_if(sessions_, [&](const ProfileSession &session) {
		return session.end_second == 0 && std::none_of(orders.begin(), orders.end(), [&](const ProfileOrder &order) {
			return order.id == session.order.id;
		});
	});
	for (const ProfileOrder &order : orders) {
		bool known = std::any_of(sessions_.begin(), sessions_.end(),
			[&](const ProfileSession &session) { return order.id == session.order.id; });
		if (!known) sessions_.push_back({order, 0, 0, 0, false});
	}
}

std::optional<int64_t> ProfileSessions::end_second(
	std::string_view application, int64_t process, int64_t now_second, int64_t now_wall_ms)
{
	std::lock_guard lock(mutex_);
	std::erase_if(sessions_, [&](const ProfileSession &session) {
		return session.told && session.end_second != 0 && session.end_second < now_second;
	});
	std::optional<int64_t> end;
	for (ProfileSession &session : sessions_) {
		if (session.order.application != application) continue;
		if (session.end_second == 0) {
			session.end_second = now_second + session.order.seconds;
			session.started_ms = now_wall_ms;
			session.process = process;
		}
		if (session.end_second >= now_second) end = std::max(end.value_or(0), session.end_second);
	}
	return end;
}

std::vector<ProfileSession> ProfileSessions::take_started()
{
	std::lock_guard lock(mutex_);
	std::vector<ProfileSession> started;
	for (ProfileSession &session : sessions_) {
		if (session.end_second == 0 || session.told) continue;
		session.told = true;
		started.push_back(session);
	}
	return started;
}

int64_t monotonic_second()
{
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return now.tv_sec;
}

} // namespace quorbit
