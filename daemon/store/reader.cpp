// What the answers of every store share.
#include "store/reader.h"

namespace quorbit {

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
