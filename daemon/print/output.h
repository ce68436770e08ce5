// Standard output: the answer. Standard error: what is said beside it.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace quorbit {

void put(std::string_view text);
// One line of progress or of what went wrong; whatever it quotes is made printable.
void tell(const std::string &line);

// One line of progress, which the next one takes the place of; nothing unless standard error is a terminal. "" ends it.
void progress(const std::string &line);

// While it lives, and once that has been a second, progress() says what goes on and for how long. Nothing else may be
// printed meanwhile.
class Working {
public:
	explicit Working(std::string what);
	~Working();

private:
	const std::string what_;
	std::mutex mutex_;
	std::condition_variable_any ended_;
	std::jthread teller_;
};

// Whether standard output may be coloured: it is a terminal that can, and NO_COLOR is not set (https://no-color.org).
bool may_colour();

// Columns to print a page in: the terminal's, within reason; 100 where there is none.
size_t output_width();
// The same for lists of names. Without a terminal there is no limit: whoever filters the lines looks for whole names.
size_t list_width();

} // namespace quorbit
