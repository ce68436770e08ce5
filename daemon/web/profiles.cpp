// Orders and their events; each has a connection to the store of its own, which holds its lock.
#include "web/profiles.h"

#include "base/clock.h"
#include "facts/profile_calls.h"
#include "print/report.h"
#include "receive/daemonize.h"
#include "store/open_reader.h"
#include "store/profile_sessions.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace quorbit {

namespace {

constexpr int64_t last_events_ms = 2000; // one second for the rounding of the clock, one for events to be stored
constexpr size_t most_calls = 20000;     // of a tree: those with most time

Json time_or_null(int64_t wall_ms)
{
	return wall_ms ? Json(utc_time(wall_ms)) : Json();
}

// Parents before their children: [number of the parent or -1, function, calls, own ms, ms with what it called].
Json calls_json(const CallTree &tree)
{
	const auto &nodes = tree.nodes();
	int64_t least_ms = 0;
	if (nodes.size() > most_calls) {
		std::vector<int64_t> times;
		for (const CallTree::Node &node : nodes) times.push_back(node.sum.total_ms);
		std::nth_element(times.begin(), times.begin() + most_calls, times.end(), std::greater<>());
		least_ms = times[most_calls] + 1;
	}
	std::vector<int64_t> places(nodes.size(), -1);
	Json calls = Json::array();
	for (size_t at = 1; at < nodes.size(); at++) {
		const CallTree::Node &node = nodes[at];
		if (node.sum.total_ms < least_ms || (node.parent && places[node.parent] < 0)) continue;
		places[at] = static_cast<int64_t>(calls.size());
		calls.push_back({node.parent ? places[node.parent] : -1, node.function, node.sum.calls, node.sum.own_ms,
			node.sum.total_ms});
	}
	return calls;
}

} // namespace

int64_t Profiles::order(const std::string &application, int64_t seconds)
{
	if (!daemon_answers(config_)) throw std::runtime_error("no daemon is running; see Status");
	std::lock_guard lock(mutex_);
	for (Kept &kept : kept_) look(kept);
	auto is_open = [](const Kept &kept) { return kept.state == State::waiting || kept.state == State::running; };
	if (std::count_if(kept_.begin(), kept_.end(), is_open) >= static_cast<std::ptrdiff_t>(most_open)) return 0;
	auto orders = std::make_unique<ProfileOrders>(config_.store_file());
	const int64_t after = orders->last_event(), id = orders->order(application, seconds);
	kept_.push_front({std::move(orders), id, seconds, wall_clock_ms(), after, application});
	if (kept_.size() > most_kept) kept_.pop_back();
	return id;
}

bool Profiles::end(int64_t id)
{
	std::lock_guard lock(mutex_);
	Kept *kept = find(id);
	if (!kept) return false;
	look(*kept);
	if (kept->state == State::waiting || kept->state == State::running) finish(*kept, State::ended);
	return true;
}

void Profiles::adopt(std::unique_ptr<ProfileOrders> orders, int64_t id, const std::string &application, int64_t seconds)
{
	std::lock_guard lock(mutex_);
	const auto start = orders->start_of(id).value_or(std::pair<int64_t, int64_t>());
	kept_.push_front(
		{std::move(orders), id, seconds, start.second, 0, application, State::done, start.second, start.first});
}

void Profiles::look()
{
	std::lock_guard lock(mutex_);
	try {
		for (Kept &kept : kept_) look(kept);
	} catch (const SqliteError &) { // the store is busy, or gone: whoever asks next is told
	}
}

void Profiles::look(Kept &kept) const
{
	const int64_t now_ms = wall_clock_ms();
	if (kept.state == State::waiting) {
		if (auto start = kept.orders->start_of(kept.id)) {
			kept.state = State::running;
			kept.process = start->first;
			kept.started_ms = start->second;
		}
	}
	if (kept.state == State::waiting || kept.state == State::running) {
		if (kept.orders->ended(kept.id)) return finish(kept, State::ended);
	}
	if (kept.state == State::waiting && now_ms - kept.ordered_ms > profile_wait_ms) finish(kept, State::unasked);
	if (kept.state == State::running && now_ms - kept.started_ms > kept.seconds * 1000 + last_events_ms)
		finish(kept, State::done);
}

// The order counts as open until then; its events stay while it is held.
void Profiles::finish(Kept &kept, State state) const
{
	kept.orders->cancel(kept.id);
	kept.state = state;
}

Profiles::Kept *Profiles::find(int64_t id)
{
	auto found = std::find_if(kept_.begin(), kept_.end(), [id](const Kept &kept) { return kept.id == id; });
	return found == kept_.end() ? nullptr : &*found;
}

std::string Profiles::head(const Kept &kept)
{
	constexpr const char *words[] = {"waiting", "running", "done", "ended", "unasked"};
	const Json head = {{"id", kept.id}, {"application", kept.application}, {"seconds", kept.seconds},
		{"state", words[static_cast<int>(kept.state)]}, {"ordered", time_or_null(kept.ordered_ms)},
		{"started", time_or_null(kept.started_ms)}, {"process", kept.process}};
	return json_text(head, false);
}

std::string Profiles::list()
{
	std::lock_guard lock(mutex_);
	std::string text = "[";
	for (Kept &kept : kept_) {
		look(kept);
		if (text.size() > 1) text += ",";
		text += head(kept);
	}
	return text + "]\n";
}

std::string Profiles::one(int64_t id)
{
	std::string text, application;
	int64_t after_event = 0;
	{
		std::lock_guard lock(mutex_);
		Kept *kept = find(id);
		if (!kept) return {};
		look(*kept);
		text = head(*kept);
		application = kept->application;
		after_event = kept->after_event;
	}
	ProfileWalk walk;
	CallTree tree;
	auto add = [&tree](const std::vector<ProfileStep> &steps) {
		for (const ProfileStep &step : steps) tree.add(step);
	};
	open_reader(config_)->each_profile_event(
		{application, after_event}, [&](const ProfileEvent &event) { add(walk.add(event)); });
	add(walk.finish());
	text.resize(text.rfind('}'));
	return text + ",\"events\":" + std::to_string(walk.events()) + ",\"threads\":" + std::to_string(walk.threads()) +
		",\"actions\":" + std::to_string(walk.actions()) + ",\"names\":" + json_text(walk.names(), false) +
		",\"calls\":" + json_text(calls_json(tree), false) + "}\n";
}

} // namespace quorbit
