/* Texts fit for the board, which others read: statements without their values, URLs without what may be secret in them.
 * Free of the engine. */
#ifndef ZQP_BOARD_TEXT_H
#define ZQP_BOARD_TEXT_H

#include <cstddef>

inline constexpr size_t ZQ_BOARD_TEXT_SIZE = 200; /* bytes: room for a text */
inline constexpr size_t ZQ_BOARD_MOST_READ = 512; /* bytes of a text that are worth handing over: more is never shown */

/* Writes the beginning of a statement, 113 bytes at most, up to its first value (quoted text or a number) or to
 * what databases read differently (comments, dollar quotes), with "?" in its place, and returns how many bytes that
 * are;
 * `*is_cut` when that is not all. `quotes_are_names`: "..." is a name and no value. */
size_t zq_board_statement(
	char (&out)[ZQ_BOARD_TEXT_SIZE], const char *text, size_t len, bool quotes_are_names, bool *is_cut);

/* Writes the URL, `room` bytes at most, up to its query or fragment, without name and password; `*is_cut` when there is
 * more of what may be shown. */
size_t zq_board_url(char *out, size_t room, const char *url, size_t len, bool *is_cut);

#endif
