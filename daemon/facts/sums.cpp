// Adding, and the form in which sums are kept.
#include "facts/sums.h"

#include "base/number.h"

#include <algorithm>
#include <iterator>
#include <tuple>

namespace quorbit {

namespace {

// The figures in the order in which they are kept. New ones go to the end: `figure_count` says how many a row has.
constexpr int64_t Sums::*figures[] = {&Sums::count, &Sums::errors, &Sums::total_us, &Sums::database_us, &Sums::cache_us,
	&Sums::external_us, &Sums::code_us, &Sums::waiting_us, &Sums::cpu_us, &Sums::statements};
// After them: how far the example by chance is from the newest one, and 1; 0 for none.
constexpr size_t values = std::size(figures) + 1;

// So that any two sums added up in any order have the same one, and each action the same chance to be it.
uint64_t lot_of(int64_t id)
{
	auto hash = static_cast<uint64_t>(id) * 0x9E3779B97F4A7C15u;
	hash = (hash ^ (hash >> 32)) * 0xBF58476D1CE4E5B9u;
	return hash ^ (hash >> 29);
}

} // namespace

void Sums::add(const Sums &other)
{
	for (auto figure : figures) add_bounded(this->*figure, other.*figure);
	durations.add(other.durations);
	// Of two that took as long the newer one, in whatever order they are added.
	if (other.slowest_id && std::tie(other.slowest_us, other.slowest_id) > std::tie(slowest_us, slowest_id))
		slowest_us = other.slowest_us, slowest_id = other.slowest_id;
	newest_id = std::max(newest_id, other.newest_id);
	if (other.chance_id && (!chance_id || lot_of(other.chance_id) < lot_of(chance_id))) chance_id = other.chance_id;
}

std::string Sums::bytes() const
{
	std::string bytes;
	bytes.reserve(64);
	write_varint(bytes, values);
	for (auto figure : figures) write_varint(bytes, this->*figure);
	write_varint(bytes, chance_id ? newest_id - chance_id + 1 : 0);
	write_varint(bytes, slowest_us);
	write_varint(bytes, slowest_id);
	write_varint(bytes, newest_id - slowest_id);
	durations.write(bytes);
	return bytes;
}

bool Sums::add_head(std::string_view &bytes)
{
	Sums read;
	int64_t figure_count, value, from_newest = 0;
	if (!take_varint(bytes, figure_count)) return false;
	for (int64_t i = 0; i < figure_count; i++) {
		if (!take_varint(bytes, value)) return false;
		if (i < static_cast<int64_t>(std::size(figures)))
			read.*figures[i] = value;
		else if (i < static_cast<int64_t>(values))
			from_newest = value;
	}
	if (!take_varint(bytes, read.slowest_us) || !take_varint(bytes, read.slowest_id)) return false;
	if (!take_varint(bytes, read.newest_id)) return false;
	if (std::max(read.slowest_id, read.newest_id) > most_sum) return false;
	read.newest_id += read.slowest_id;
	if (read.newest_id > most_sum || from_newest > read.newest_id) return false; // no action has such a number
	if (from_newest) read.chance_id = read.newest_id + 1 - from_newest;
	add(read);
	return true;
}

bool Sums::add_bytes(std::string_view bytes)
{
	return add_head(bytes) && durations.read(bytes);
}

} // namespace quorbit
