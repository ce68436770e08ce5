// Who holds what of a full store, and what of it goes first.
#pragma once

#include "base/shares.h"
#include "store/pins.h"

#include <array>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace quorbit {

// A stored action, as far as it matters here.
struct HeldAction {
	int64_t id = 0, received_ms = 0, duration_ms = 0;
	int64_t bytes = 0; // that it takes in the file
	uint32_t account = 0;
	std::string_view application, name; // borrowed for the call
};

// The oldest actions go first, whoever's they are. What must not go with them, however many come of others:
//  - A quarter of the store is divided equally among accounts, each part among the applications of its account, and
//    each of these among their names: within its part a name keeps its newest actions.
//  - A name with more than that keeps its newest action and its three slowest ones, out of half of the store, which
//    applications and names share so that there is always room for those with little (Shares).
//  - What the sums name as an example of a key and hour stays beside these, out of a tenth of the store (Pins).
// Only so many names have this protection, one for each 256 KiB of the store: accounts and applications share these
// places in the same way, so that a flood of names takes nobody's, and a place is free again when its name has not been
// seen for a day.
//
// It knows what it was told: every action of the store by add(), and what became of each by the others. One thread.
class Holders {
public:
	explicit Holders(int64_t bound_bytes);

	int64_t bound_bytes() const { return bound_bytes_; }

	// An action that is in the store now; in any order.
	void add(const HeldAction &action);

	// What is to be removed now: the next three add to it.
	struct Removal {
		std::vector<int64_t> ids;
		int64_t bytes = 0;
		int64_t wanted_bytes = 0; // enough when that many are found,
		size_t most = 0;          // or that many actions
		bool is_enough() const { return bytes >= wanted_bytes || ids.size() >= most; }
	};
	// What was kept, and is more than the part of its name by now: to be asked for first.
	void take_surplus(Removal &removal);
	// The action, the oldest that was not judged yet, is either kept or to be removed.
	void judge(const HeldAction &action, const ExampleOf &example, Removal &removal);
	// Whether there are more examples than may be. Those of thin_examples() are judged once more, as what they are
	// without: by judge_again().
	bool has_many_examples() const { return pins_.is_over(); }
	std::vector<int64_t> thin_examples(const std::function<int64_t(int64_t key)> &lifetime)
	{
		return pins_.thin(lifetime);
	}
	void judge_again(const HeldAction &action, Removal &removal);
	// The oldest action that was kept: for a store that is too small for its rules.
	void take_oldest(Removal &removal);

private:
	struct Kept {
		int64_t id, bytes;
		bool reserved; // out of the half that is for newest and slowest actions
	};
	struct Slow {
		int64_t duration_ms = -1, id = 0;
	};
	struct Name {
		uint64_t number = 0;
		int64_t bytes = 0, newest_id = 0, seen_ms = 0;
		std::array<Slow, 3> slowest;
		std::deque<Kept> kept; // judged, and still there; oldest first
	};
	struct Application {
		uint32_t number = 0, account = 0;
		std::map<std::string, Name, std::less<>> names;
	};
	struct Account {
		std::map<std::string, Application, std::less<>> applications;
	};
	struct Found {
		Application *application = nullptr;
		Name *name = nullptr;
	};
	Found find(const HeldAction &action);
	Found find_or_make(const HeldAction &action);
	int64_t part_bytes(const Application &application) const;
	bool reserves(const Application &application, const Name &name, Kept &action);
	void remove(const Application &application, Name &name, size_t place, Removal &removal);
	void trim(const Application &application, Name &name, Removal &removal);
	void trim_names(Application &application, bool look_for_places, Removal &removal);

	const int64_t bound_bytes_;
	Pins pins_;
	Shares places_;   // by account and application
	Shares reserved_; // by application and name
	std::map<uint32_t, Account> accounts_;
	uint32_t last_application_ = 0;
	uint64_t last_name_ = 0;
	int64_t now_ms_ = 0;   // of the newest action
	bool refused_ = false; // a name, since the last look for places
};

} // namespace quorbit
