// Texts and values that may be missing; and the end of the bytes.
#include "store/row_binary.h"

#include "facts/histogram.h"

namespace quorbit {

void RowWriter::nullable(std::optional<int64_t> value)
{
	number<uint8_t>(!value);
	if (value) number(*value);
}

void RowWriter::text(std::string_view text)
{
	write_varint(bytes, static_cast<int64_t>(text.size()));
	bytes.append(text);
}

std::optional<int64_t> RowReader::nullable()
{
	if (number<uint8_t>()) return std::nullopt;
	return number<int64_t>();
}

std::string_view RowReader::text()
{
	int64_t length = 0;
	if (!take_varint(rest_, length)) throw std::runtime_error("the answer ends within a length");
	return take(static_cast<size_t>(length));
}

std::string_view RowReader::take(size_t length)
{
	if (length > rest_.size()) throw std::runtime_error("the answer ends within a row");
	const std::string_view found = rest_.substr(0, length);
	rest_.remove_prefix(length);
	return found;
}

} // namespace quorbit
