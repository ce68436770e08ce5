// Which actions the sums name as examples.
#include "store/rollup.h"

#include <memory>

namespace quorbit {

std::unordered_map<int64_t, ExampleOf> Rollup::examples_of(int64_t hour)
{
	std::unordered_map<int64_t, ExampleOf> found;
	Statement select(database_, "SELECT key, sums FROM sum_hour WHERE kind = ? AND hour = ?");
	for (int64_t kind = 1; kind < static_cast<int64_t>(key_kinds); kind++) {
		select.bind(1, kind).bind(2, hour);
		while (select.step()) {
			Sums sums;
			const std::string bytes = select.text(1);
			std::string_view rest = bytes;
			if (!sums.add_head(rest)) continue;
			for (int64_t id : {sums.slowest_id, sums.newest_id, sums.chance_id}) {
				ExampleOf &example = found[id];
				if (id == sums.slowest_id) example.slowest = true;
				if (example.keys.empty() || example.keys.back() != select.integer(0))
					example.keys.push_back(select.integer(0));
			}
		}
		select.reset();
	}
	found.erase(0); // none
	return found;
}

std::function<int64_t(int64_t)> Rollup::lifetimes()
{
	auto known = std::make_shared<std::unordered_map<int64_t, int64_t>>();
	return [this, known](int64_t key) {
		if (known->empty()) {
			Statement select(database_, "SELECT id, last_ms - first_ms FROM sum_key");
			while (select.step()) known->emplace(select.integer(0), select.integer(1));
			known->emplace(0, 0);
		}
		auto found = known->find(key);
		return found == known->end() ? 0 : found->second;
	};
}

} // namespace quorbit
