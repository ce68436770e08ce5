// Events to steps, steps to sums.
#include "facts/profile_calls.h"

#include <algorithm>

namespace quorbit {

void ProfileWalk::leave_down_to(size_t depth)
{
	for (; open_.size() > depth; open_.pop_back()) steps_.push_back({thread_, last_ms_, false, open_.back()});
}

void ProfileWalk::end_thread()
{
	cut_off_ += static_cast<int64_t>(open_.size());
	leave_down_to(0);
}

const std::vector<ProfileStep> &ProfileWalk::add(const ProfileEvent &event)
{
	steps_.clear();
	if (events_++ == 0 || event.thread != thread_) {
		end_thread();
		threads_++;
		thread_ = event.thread;
		last_ms_ = event.at_ms;
	}
	last_ms_ = std::max(last_ms_, event.at_ms);
	const bool is_action = event.kind == "action";
	const std::string name = (is_action ? "action " : "") + event.name;
	if (event.enter) {
		// One that never ended: an action is the outermost call of its thread.
		if (is_action) leave_down_to(0);
		actions_ += is_action;
		auto [place, fresh] = places_.try_emplace(name, names_.size());
		if (fresh) names_.push_back(name);
		open_.push_back(place->second);
		steps_.push_back({thread_, last_ms_, true, place->second});
		return steps_;
	}
	auto same = std::find_if(open_.rbegin(), open_.rend(), [&](size_t function) {
		return is_action ? names_[function].starts_with("action ") : names_[function] == name;
	});
	if (same != open_.rend()) leave_down_to(static_cast<size_t>(open_.rend() - same) - 1);
	return steps_;
}

const std::vector<ProfileStep> &ProfileWalk::finish()
{
	steps_.clear();
	end_thread();
	return steps_;
}

void CallTree::add(const ProfileStep &step)
{
	if (step.function >= functions_.size()) {
		functions_.resize(step.function + 1);
		depths_.resize(step.function + 1);
	}
	CallSum &function = functions_[step.function];
	int64_t &depth = depths_[step.function];
	if (step.enter) {
		const size_t caller = open_.back().node;
		auto [place, fresh] = children_.try_emplace({caller, step.function}, nodes_.size());
		if (fresh) nodes_.push_back({caller, step.function, {}});
		nodes_[place->second].sum.calls++;
		function.calls++;
		depth++;
		open_.push_back({place->second, step.at_ms});
		return;
	}
	const Open ended = open_.back();
	open_.pop_back();
	const int64_t taken_ms = step.at_ms - ended.at_ms, own_ms = taken_ms - ended.called_ms;
	open_.back().called_ms += taken_ms;
	CallSum &node = nodes_[ended.node].sum;
	node.own_ms += own_ms;
	node.total_ms += taken_ms;
	function.own_ms += own_ms;
	if (--depth == 0) function.total_ms += taken_ms;
	if (open_.size() == 1) nodes_[0].sum.total_ms += taken_ms;
}

} // namespace quorbit
