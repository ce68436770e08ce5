// Orders and running sessions of thread profiles.
#include "store/profile_sessions.h"

#include <algorithm>
#include <ctime>

namespace quorbit {

void ProfileSessions::set_open(const std::vector<ProfileOrder> &orders, int64_t now_second, int64_t now_wall_ms)
{
	std::lock_guard lock(mutex_);
	auto same_id = [](int64_t id) {
		return [id](const auto &entry) {
			if constexpr (requires { entry.order; })
				return entry.order.id == id;
			else
				return entry.id == id;
		};
	};
	auto is_open = [&](int64_t id) { return std::any_of(orders.begin(), orders.end(), same_id(id)); };
	std::erase_if(sessions_,
		[&](const ProfileSession &session) { return session.end_second == 0 && !is_open(session.order.id); });
	for (ProfileSession &session : sessions_) {
		// The second before this one: whoever compares with the present one finds it over.
		if (session.stopped_second == 0 && !is_open(session.order.id)) session.stopped_second = now_second - 1;
	}
	for (const ProfileOrder &order : orders) {
		if (std::any_of(sessions_.begin(), sessions_.end(), same_id(order.id))) continue;
		int64_t gone = order.started_ms ? (now_wall_ms - order.started_ms) / 1000 : 0;
		int64_t end = order.started_ms ? now_second + std::clamp(order.seconds - gone, int64_t{0}, order.seconds) : 0;
		sessions_.push_back({order, end, 0, order.started_ms != 0});
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
			session.order.started_ms = now_wall_ms;
			session.order.process = process;
		}
		if (session.end_second < now_second) continue;
		end = std::max(end.value_or(0), session.stopped_second ? session.stopped_second : session.end_second);
	}
	return end;
}

std::vector<ProfileOrder> ProfileSessions::take_started()
{
	std::lock_guard lock(mutex_);
	std::vector<ProfileOrder> started;
	for (ProfileSession &session : sessions_) {
		if (session.end_second == 0 || session.told) continue;
		session.told = true;
		started.push_back(session.order);
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
