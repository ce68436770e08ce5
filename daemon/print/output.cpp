// Where commands print to.
#include "print/output.h"

#include "base/text.h"

#include <algorithm>
#include <cstdint>
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
	size_t columns = terminal_width();
	return columns ? std::clamp(columns, size_t{80}, size_t{200}) : 100;
}

size_t list_width()
{
	return terminal_width() ? output_width() : SIZE_MAX;
}

} // namespace quorbit
