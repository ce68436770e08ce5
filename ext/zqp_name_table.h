/* Rows found by name: tables whose layout is computed at compile time.
 *
 * Nearly every name that is looked up has no row. A lookup therefore costs a multiplication and one byte; only a name
 * that hits a used place has its hash, its length and then its bytes compared. Two rows of one name do not compile. */
#ifndef ZQP_NAME_TABLE_H
#define ZQP_NAME_TABLE_H

#include <array>

#include "zqp_helper.h"

/* The name of a row; converts from a literal. */
struct zq_name {
	const char *text;
	int length;
	uint64 hash;
	template <size_t N>
	consteval zq_name(const char (&name)[N]) : text(name), length(N - 1), hash(zq_name_hash(name))
	{
	}
	/* 1 when a name with this hash and length, and these bytes, is this one. */
	int is(uint64 other_hash, const char *other, int other_length) const
	{
		return hash == other_hash && length == other_length && memcmp(text, other, (size_t)length) == 0;
	}
};

/* Where the rows of a table with `N` rows are found. Every row type has a member `name`. */
template <size_t N>
struct zq_name_index {
	static_assert(N < 255, "places are bytes");
	static constexpr int bits()
	{
		int bits = 3;
		while ((size_t)1 << bits < N * 8) {
			bits++;
		}
		return bits;
	}
	uint64 multiplier;
	unsigned char place[(size_t)1 << bits()]; /* 0: no row, else its number and 1 */
	constexpr size_t slot(uint64 hash) const { return (size_t)((hash * multiplier) >> (64 - bits())); }
};

void zq_two_rows_have_one_name(); /* never defined: reaching it stops the compiler */

/* Finds a multiplier under which no two rows share a place. */
template <typename Row, size_t N>
consteval zq_name_index<N> zq_index_names(const std::array<Row, N> &rows)
{
	uint64 seed = 0x9E3779B97F4A7C15u;
	for (int attempt = 0; attempt < 20000; attempt++, seed = seed * 6364136223846793005u + 1442695040888963407u) {
		zq_name_index<N> index = {seed | 1, {}};
		size_t placed = 0;
		while (placed < N && !index.place[index.slot(rows[placed].name.hash)]) {
			index.place[index.slot(rows[placed].name.hash)] = (unsigned char)(placed + 1);
			placed++;
		}
		if (placed == N) {
			return index;
		}
	}
	zq_two_rows_have_one_name();
	return {};
}

/* The row with this name, or null. Not to be merged with the lookup of another table of the same size: gcc would then
 * hold the one against the other's bounds. */
template <typename Row, size_t N>
__attribute__((no_icf)) static inline const Row *zq_find_row(
	const std::array<Row, N> &rows, const zq_name_index<N> &index, uint64 hash, const char *name, int length)
{
	int place = index.place[index.slot(hash)];
	if (!place) {
		return NULL;
	}
	const Row *row = &rows[place - 1];
	return row->name.is(hash, name, length) ? row : NULL;
}

/* A cheaper question in front: could a name be in the table, judged by two small numbers that cost nothing to have?
 * Answers 1 for every name that is in it, and 0 for most that are not. */
struct zq_name_sieve {
	uint64 mask[32];
	constexpr int passes(unsigned char a, unsigned char b) const { return (int)(mask[a & 31] >> (b & 63) & 1); }
	constexpr void admit(unsigned char a, unsigned char b) { mask[a & 31] |= (uint64)1 << (b & 63); }
};

#endif
