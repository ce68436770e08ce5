// What an action is summed up by: itself, and the statements, calls and errors in it.
#pragma once

#include "facts/packet.h"
#include "facts/sums.h"

#include <functional>

namespace quorbit {

enum class KeyKind : uint8_t { action = 1, path, query, error, external, cache, component };
constexpr size_t key_kinds = 8; // numbers of kinds are below it

// A key in words. Application, kind and name tell it from all others.
struct KeyFacts {
	int64_t id = 0; // given by the store, for good
	std::string application;
	// The action's name; the path with * for digits; the statement without its values; "class: message at file:line";
	// the outgoing call; "Redis get"; the component.
	std::string name;
	// Of queries, as far as known. place, caller, finding and suggestion also change while the name stays.
	std::string vendor = {}, table = {}, verb = {}; // "SELECT"
	std::string place = {};                         // "file:line" that ran it; of errors where it was raised
	std::string caller = {};                        // "file:line" that called that, from another class or file
	std::string finding = {}, suggestion = {};      // of its last plan that proved something
	int64_t finding_ms = 0;                         // when that came, to the minute
	// Of errors.
	std::string error_class = {}, message = {}; // without its values
	int64_t first_ms = 0, last_ms = 0;          // when it was seen, to the minute
};

// The name of what came beyond the keys that are told apart.
constexpr const char *other_keys = "(others)";

struct KeySums {
	KeyKind kind;
	KeyFacts facts;
	Sums sums;
};

// The keys of an action with their sums, the action's own first; each key once.
std::vector<KeySums> keys_of(const Action &action);

// A message with "#" for each number and "…" for what is quoted, so that those that tell the same are the same.
std::string mask_message(std::string_view message);

} // namespace quorbit
