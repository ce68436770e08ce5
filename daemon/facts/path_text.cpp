// Masking.
#include "facts/path_text.h"

#include <algorithm>

namespace quorbit {

static bool is_digit(char byte)
{
	return byte >= '0' && byte <= '9';
}

static bool is_hex(char byte)
{
	return is_digit(byte) || (byte >= 'a' && byte <= 'f') || (byte >= 'A' && byte <= 'F');
}

std::string mask_path(std::string_view path)
{
	constexpr size_t long_number = 16;
	std::string masked;
	while (!path.empty()) {
		size_t slash = path.find('/', 1);
		std::string_view segment = path.substr(0, slash);
		path.remove_prefix(segment.size());
		auto is_number = [](char byte) { return is_hex(byte) || byte == '-'; };
		if (segment.size() > long_number && std::all_of(segment.begin() + 1, segment.end(), is_number)) {
			masked += "/*";
			continue;
		}
		for (char byte : segment) {
			if (!is_digit(byte))
				masked += byte;
			else if (!masked.ends_with('*'))
				masked += '*';
		}
	}
	return masked;
}

} // namespace quorbit
