// Rows as ClickHouse takes and gives them over HTTP: FORMAT RowBinary, values one after the other without names,
// integers in the byte order of this machine's processors, texts after their length as LEB128.
#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quorbit {

// Appends values to `bytes`; the type of each has to be that of its column.
class RowWriter {
public:
	std::string bytes;

	template <std::integral Integer>
	void number(Integer value)
	{
		bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
	}
	void nullable(std::optional<int64_t> value);
	void text(std::string_view text);
};

// Takes values off the front. Throws std::runtime_error when the bytes end within one.
class RowReader {
public:
	explicit RowReader(std::string_view bytes) : rest_(bytes) {}

	bool is_at_end() const { return rest_.empty(); }
	template <std::integral Integer>
	Integer number()
	{
		Integer value;
		memcpy(&value, take(sizeof value).data(), sizeof value);
		return value;
	}
	std::optional<int64_t> nullable();
	std::string_view text(); // into the bytes

private:
	std::string_view take(size_t length);

	std::string_view rest_;
};

} // namespace quorbit
