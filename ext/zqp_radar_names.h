/* Finding the rules of zqp_radar_rules.h by the names in them. Free of the engine, as they are. */
#ifndef ZQP_RADAR_NAMES_H
#define ZQP_RADAR_NAMES_H

#include <algorithm>

#include "zqp_radar_rules.h"

/* One name of a row, as the row spells it. */
struct zq_radar_name {
	std::string_view text;
	size_t row;
};

/* Names are compared as PHP compares those of functions and classes. */
constexpr int zq_radar_compare(std::string_view a, std::string_view b)
{
	auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
	for (size_t i = 0; i < a.size() && i < b.size(); i++) {
		if (lower(a[i]) != lower(b[i])) {
			return lower(a[i]) < lower(b[i]) ? -1 : 1;
		}
	}
	return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

/* Calls each(name, number of its row) for all names. */
template <typename Each>
constexpr void zq_radar_each_name(Each each)
{
	for (size_t row = 0; row < zq_radar_rules.size(); row++) {
		std::string_view names = zq_radar_rules[row].names;
		while (!names.empty()) {
			size_t end = zq_radar_is_phrase(zq_radar_rules[row].sign) ? names.size() : names.find(' ');
			std::string_view name = names.substr(0, end);
			each(name, row);
			names.remove_prefix(name.size() == names.size() ? name.size() : name.size() + 1);
		}
	}
}

consteval size_t zq_radar_name_count()
{
	size_t count = 0;
	zq_radar_each_name([&count](std::string_view, size_t) { count++; });
	return count;
}

/* All names in their order, those of several rows as often. */
inline constexpr auto zq_radar_names = [] {
	std::array<zq_radar_name, zq_radar_name_count()> names{};
	size_t count = 0;
	zq_radar_each_name([&](std::string_view name, size_t row) { names[count++] = {name, row}; });
	std::sort(names.begin(), names.end(), [](const zq_radar_name &a, const zq_radar_name &b) {
		int order = zq_radar_compare(a.text, b.text);
		return order ? order < 0 : a.row < b.row;
	});
	return names;
}();

/* The first of the rows that have the name, of which the others follow; the end of the list when there is none. */
inline const zq_radar_name *zq_radar_find(std::string_view name)
{
	const zq_radar_name *end = zq_radar_names.data() + zq_radar_names.size();
	const zq_radar_name *at = std::lower_bound(zq_radar_names.data(), end, name,
		[](const zq_radar_name &a, std::string_view wanted) { return zq_radar_compare(a.text, wanted) < 0; });
	return at != end && zq_radar_compare(at->text, name) == 0 ? at : end;
}

/* The row that has the name and is recognised by that sign; null for none. */
inline const zq_radar_rule *zq_radar_rule_of(uint8_t sign, std::string_view name)
{
	const zq_radar_name *end = zq_radar_names.data() + zq_radar_names.size();
	for (const zq_radar_name *at = zq_radar_find(name); at != end && zq_radar_compare(at->text, name) == 0; at++) {
		if (zq_radar_rules[at->row].sign == sign) {
			return &zq_radar_rules[at->row];
		}
	}
	return nullptr;
}

/* Whether there is a row for that phrase: for assertions, since sanitizers refuse addresses in them. */
constexpr bool zq_radar_has_phrase(zq_radar_sign sign, std::string_view phrase)
{
	for (const zq_radar_rule &rule : zq_radar_rules) {
		if (rule.sign == sign && rule.names == phrase) {
			return true;
		}
	}
	return false;
}

consteval bool zq_radar_names_differ()
{
	for (size_t i = 1; i < zq_radar_names.size(); i++) {
		for (size_t j = i; j > 0 && zq_radar_compare(zq_radar_names[i].text, zq_radar_names[j - 1].text) == 0; j--) {
			if (zq_radar_rules[zq_radar_names[i].row].sign == zq_radar_rules[zq_radar_names[j - 1].row].sign) {
				return false;
			}
		}
	}
	return true;
}
static_assert(zq_radar_names_differ(), "a name has two rows with the same sign");

#endif
