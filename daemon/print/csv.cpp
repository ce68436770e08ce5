// Cells of lines for spreadsheets.
#include "print/csv.h"

#include "base/text.h"

namespace quorbit {

std::string csv_cell(const std::string &text)
{
	std::string cell = "\"";
	for (char byte : printable(text)) cell += byte == '"' ? std::string("\"\"") : std::string(1, byte);
	return cell + "\"";
}

} // namespace quorbit
