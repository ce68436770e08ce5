// Parts, places, and what is kept of what was judged.
#include "store/holders.h"

#include "base/clock.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace quorbit {

namespace {

constexpr int64_t bytes_of_a_place = int64_t{256} << 10;
constexpr int64_t least_places = 32, most_places = 4096;

} // namespace

Holders::Holders(int64_t bound_bytes)
	: bound_bytes_(bound_bytes),
	  pins_(bound_bytes / 10),
	  places_(static_cast<size_t>(std::clamp(bound_bytes / bytes_of_a_place, least_places, most_places))),
	  reserved_(static_cast<size_t>(std::max(bound_bytes / 2, int64_t{0})))
{
}

Holders::Found Holders::find(const HeldAction &action)
{
	auto account = accounts_.find(action.account);
	if (account == accounts_.end()) return {};
	auto application = account->second.applications.find(action.application);
	if (application == account->second.applications.end()) return {};
	auto name = application->second.names.find(action.name);
	if (name == application->second.names.end()) return {};
	return {&application->second, &name->second};
}

Holders::Found Holders::find_or_make(const HeldAction &action)
{
	if (Found found = find(action); found.name) return found;
	auto account = accounts_.find(action.account);
	Application *application = nullptr;
	if (account != accounts_.end()) {
		auto known = account->second.applications.find(action.application);
		if (known != account->second.applications.end()) application = &known->second;
	}
	const uint32_t number = application ? application->number : last_application_ + 1;
	if (!places_.take({action.account, number}, 1)) {
		refused_ = true;
		return {};
	}
	if (!application) {
		last_application_ = number;
		application = &accounts_[action.account].applications[std::string(action.application)];
		application->number = number;
		application->account = action.account;
	}
	Name &name = application->names[std::string(action.name)];
	name.number = ++last_name_;
	return {application, &name};
}

void Holders::add(const HeldAction &action)
{
	now_ms_ = std::max(now_ms_, action.received_ms);
	Name *name = find_or_make(action).name;
	if (!name) return;
	name->bytes += action.bytes;
	name->seen_ms = std::max(name->seen_ms, action.received_ms);
	name->newest_id = std::max(name->newest_id, action.id);
	auto quickest = std::min_element(name->slowest.begin(), name->slowest.end(),
		[](const Slow &a, const Slow &b) { return a.duration_ms < b.duration_ms; });
	if (action.duration_ms > quickest->duration_ms) *quickest = {action.duration_ms, action.id};
}

// What each name of the application may keep.
int64_t Holders::part_bytes(const Application &application) const
{
	const Account &account = accounts_.at(application.account);
	auto count = [](const auto &holders) { return static_cast<int64_t>(holders.size()); };
	return bound_bytes_ / 4 / count(accounts_) / count(account.applications) / count(application.names);
}

// Whether an action stays though its name has more than its part.
bool Holders::reserves(const Application &application, const Name &name, Kept &action)
{
	const bool slow = std::any_of(
		name.slowest.begin(), name.slowest.end(), [&action](const Slow &one) { return one.id == action.id; });
	if (action.id != name.newest_id && !slow) return false;
	const auto bytes = static_cast<size_t>(action.bytes);
	if (!action.reserved) action.reserved = reserved_.take({application.number, name.number}, bytes);
	return action.reserved;
}

void Holders::remove(const Application &application, Name &name, size_t place, Removal &removal)
{
	const Kept &kept = name.kept[place];
	if (kept.reserved) reserved_.give_back({application.number, name.number}, static_cast<size_t>(kept.bytes));
	removal.ids.push_back(kept.id);
	removal.bytes += kept.bytes;
	name.bytes -= kept.bytes;
	name.kept.erase(name.kept.begin() + static_cast<ptrdiff_t>(place));
}

// The oldest first, while the name has more than its part.
void Holders::trim(const Application &application, Name &name, Removal &removal)
{
	const int64_t part = part_bytes(application);
	for (size_t place = 0; place < name.kept.size() && name.bytes > part && !removal.is_enough();) {
		if (reserves(application, name, name.kept[place]))
			place++;
		else
			remove(application, name, place, removal);
	}
}

void Holders::judge(const HeldAction &action, const ExampleOf &example, Removal &removal)
{
	auto [application, name] = find(action);
	if (!example.keys.empty()) {
		pins_.keep({action.id, action.bytes, action.received_ms / hour_ms, example});
	} else {
		Kept kept{action.id, action.bytes, false};
		if (name && (name->bytes <= part_bytes(*application) || reserves(*application, *name, kept))) {
			auto younger = [](int64_t id, const Kept &other) { return id < other.id; };
			name->kept.insert(std::upper_bound(name->kept.begin(), name->kept.end(), action.id, younger), kept);
			return;
		}
		removal.ids.push_back(action.id);
		removal.bytes += action.bytes;
	}
	if (name) name->bytes -= action.bytes;
}

void Holders::judge_again(const HeldAction &action, Removal &removal)
{
	if (Name *name = find(action).name) name->bytes += action.bytes;
	judge(action, {}, removal);
}

void Holders::take_surplus(Removal &removal)
{
	const bool look_for_places = std::exchange(refused_, false);
	for (auto account = accounts_.begin(); account != accounts_.end();) {
		auto &applications = account->second.applications;
		for (auto application = applications.begin(); application != applications.end();) {
			trim_names(application->second, look_for_places, removal);
			application = application->second.names.empty() ? applications.erase(application) : std::next(application);
		}
		account = applications.empty() ? accounts_.erase(account) : std::next(account);
	}
}

// And forgets names of which nothing is left, and those that give up their place.
void Holders::trim_names(Application &application, bool look_for_places, Removal &removal)
{
	for (auto at = application.names.begin(); at != application.names.end();) {
		Name &name = at->second;
		const bool gives_up = look_for_places && name.seen_ms < now_ms_ - day_ms;
		if (!gives_up && name.bytes > 0) {
			trim(application, name, removal);
			++at;
			continue;
		}
		while (!name.kept.empty()) remove(application, name, 0, removal);
		places_.give_back({application.account, application.number}, 1);
		at = application.names.erase(at);
	}
}

void Holders::take_oldest(Removal &removal)
{
	Found oldest;
	for (auto &[account_id, account] : accounts_) {
		for (auto &[application_name, application] : account.applications) {
			for (auto &[its_name, name] : application.names) {
				if (name.kept.empty()) continue;
				if (!oldest.name || name.kept.front().id < oldest.name->kept.front().id) oldest = {&application, &name};
			}
		}
	}
	if (oldest.name)
		remove(*oldest.application, *oldest.name, 0, removal);
	else if (const int64_t id = pins_.drop_oldest())
		removal.ids.push_back(id);
}

} // namespace quorbit
