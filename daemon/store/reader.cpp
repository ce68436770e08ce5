// What the answers of every store share.
#include "store/reader.h"

#include <algorithm>
#include <iterator>

namespace quorbit {

namespace {

// In the order of their enumerators.
constexpr const char *key_names[] = {
	"action", "path", "query", "error", "external", "cache", "component", "application", "host"};
static_assert(std::size(key_names) == static_cast<size_t>(SumKey::host) + 1);
constexpr const char *order_names[] = {"total", "count", "avg", "p95", "p99", "errors", "statements"};
static_assert(std::size(order_names) == static_cast<size_t>(SumOrder::statements) + 1);

template <typename Value, size_t count>
std::optional<Value> value_of(const char *const (&names)[count], std::string_view name)
{
	auto found = std::find(std::begin(names), std::end(names), name);
	if (found == std::end(names)) return std::nullopt;
	return static_cast<Value>(found - names);
}

} // namespace

const char *name_of(SumKey key)
{
	return key_names[static_cast<size_t>(key)];
}
const char *name_of(SumOrder order)
{
	return order_names[static_cast<size_t>(order)];
}
std::optional<SumKey> sum_key_of(std::string_view name)
{
	return value_of<SumKey>(key_names, name);
}
std::optional<SumOrder> sum_order_of(std::string_view name)
{
	return value_of<SumOrder>(order_names, name);
}

Settings parse_given(std::string_view given)
{
	Settings settings;
	while (!given.empty()) {
		std::string_view line = given.substr(0, given.find('\n'));
		given.remove_prefix(std::min(given.size(), line.size() + 1));
		size_t equals = line.find('=');
		if (equals != std::string_view::npos) settings[std::string(line.substr(0, equals))] = line.substr(equals + 1);
	}
	return settings;
}

} // namespace quorbit
