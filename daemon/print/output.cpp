// Where commands print to.
#include "print/output.h"

#include "base/text.h"

#include <algorithm>
#include <cstdio>

namespace quorbit {

void put(std::string_view text)
{
	fwrite(text.data(), 1, text.size(), stdout);
}

void tell(const std::string &line)
{
	fprintf(stderr, "%s\n", printable(line).c_str());
}

size_t output_width()
{
	return std::clamp(terminal_width(), size_t{100}, size_t{200});
}

} // namespace quorbit
