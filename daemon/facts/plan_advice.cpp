// What follows from a plan that reads a table row by row: the index that its conditions ask for.
#include "facts/plan.h"
#include "facts/sql_text.h"

#include <algorithm>
#include <strings.h>

namespace quorbit {

namespace {

bool is_word_byte(char byte)
{
	return isalnum(static_cast<unsigned char>(byte)) || byte == '_' || byte == '.' || byte == '$' ||
		static_cast<unsigned char>(byte) >= 0x80;
}

// Words, and other characters one by one; names without their quotes, "<=" and the like as one.
std::vector<std::string> tokens_of(std::string_view text)
{
	std::vector<std::string> tokens;
	bool joined = false; // the word before goes on, as in `t`.`c`
	for (size_t at = 0; at < text.size();) {
		size_t length = 0;
		while (at + length < text.size() && is_word_byte(text[at + length])) length++;
		const char byte = text[at];
		if (length > 0) {
			const std::string word(text.substr(at, length));
			if (!tokens.empty() && (joined || (word[0] == '.' && !tokens.back().empty())))
				tokens.back() += word;
			else
				tokens.push_back(word);
			joined = word.back() == '.';
			at += length;
			continue;
		}
		if (byte != ' ' && byte != '`' && byte != '"') {
			const bool compares = !tokens.empty() && std::string_view("<>!=").find(byte) != std::string_view::npos &&
				std::string_view("<>!=").find(tokens.back()[0]) != std::string_view::npos;
			if (compares)
				tokens.back() += byte;
			else
				tokens.emplace_back(1, byte);
			joined = false;
		}
		at++;
	}
	return tokens;
}

bool is(const std::string &token, const char *word)
{
	return strcasecmp(token.c_str(), word) == 0;
}

bool is_any(const std::string &token, std::initializer_list<const char *> words)
{
	return std::any_of(words.begin(), words.end(), [&token](const char *word) { return is(token, word); });
}

bool is_name(const std::string &token)
{
	return is_word_byte(token[0]) && !isdigit(static_cast<unsigned char>(token[0])) &&
		!is_any(token, {"AND", "OR", "NOT", "IS", "NULL", "LIKE", "IN", "BETWEEN", "EXISTS", "SELECT"});
}

// A statement taken apart as far as its conditions go.
class Conditions {
public:
	Conditions(std::string_view kind, const std::string &scanned) : tokens_(tokens_of(kind)) { read(scanned); }

	std::string table;                         // its name, whatever alias the plan has
	std::vector<std::string> equal, range;     // columns compared with values
	bool understood = true, has_where = false; // false: nothing is said
	bool likes = false;                        // a LIKE among them
	std::string first;                         // the first condition, "product = ?"

private:
	// Only statements of one table: of several, which column belongs to which is not known here.
	void read(const std::string &scanned)
	{
		auto where = std::find_if(tokens_.begin(), tokens_.end(), [](const auto &token) { return is(token, "WHERE"); });
		has_where = where != tokens_.end();
		const auto count = [this](const char *word) {
			return std::count_if(tokens_.begin(), tokens_.end(), [word](const auto &token) { return is(token, word); });
		};
		if (count("SELECT") > 1 || count("JOIN") || count("UNION") || count("OR") || count("XOR")) understood = false;
		auto from = std::find_if(tokens_.begin(), tokens_.end(), [](const auto &token) {
			return is_any(token, {"FROM", "UPDATE"});
		});
		if (from == tokens_.end() || std::next(from) == tokens_.end()) understood = false;
		if (!understood) return;
		table = *std::next(from);
		if (std::find(std::next(from), where, ",") != where && is(*from, "FROM")) understood = false;
		const bool aliased = std::find(std::next(from), where, scanned) != where;
		if (!scanned.empty() && !aliased && !is(table.substr(table.rfind('.') + 1), scanned.c_str()))
			understood = false;
		if (has_where && understood) read_conditions(static_cast<size_t>(where - tokens_.begin()) + 1);
	}

	const std::string &at(size_t index) const
	{
		static const std::string end;
		return index < tokens_.size() ? tokens_[index] : end;
	}

	void read_conditions(size_t index)
	{
		for (; index < tokens_.size(); index++) {
			const std::string &token = at(index);
			if (is_any(token, {"GROUP", "ORDER", "LIMIT", "HAVING", "FOR"})) return;
			if (is(token, "NOT")) understood = false;
			// An index is of no use to a column inside a function.
			if (!is_name(token) || at(index + 1) == "(" ||
				(index > 0 && at(index - 1) == "(" && is_name(at(index - 2))))
				continue;
			take(token, at(index + 1), at(index + 2));
		}
	}

	void take(const std::string &column, const std::string &operation, const std::string &value)
	{
		const std::string name = column.substr(column.rfind('.') + 1);
		auto add = [&name](std::vector<std::string> &list) {
			if (std::find(list.begin(), list.end(), name) == list.end()) list.push_back(name);
		};
		const bool is_value = value == "?" || value == ":" || value == "$" || value.starts_with("$") || value == "(";
		if (is(operation, "LIKE"))
			likes = true;
		else if (operation == "=" && is_value)
			add(equal);
		else if (is(operation, "IN"))
			add(equal);
		else if ((is_any(operation, {"<", ">", "<=", ">="}) && is_value) || is(operation, "BETWEEN"))
			add(range);
		else
			return;
		if (first.empty() && !is(operation, "LIKE"))
			first = name + " " + operation + (is(operation, "IN") ? " (?, ...)" : " ?");
	}

	std::vector<std::string> tokens_;
};

// Whether the pattern of a LIKE begins with a wildcard: only the statement itself tells.
bool likes_any_beginning(std::string_view statement)
{
	for (size_t at = 0; at + 4 < statement.size(); at++) {
		if (strncasecmp(statement.data() + at, "LIKE", 4) != 0) continue;
		size_t pattern = at + 4;
		while (pattern < statement.size() && statement[pattern] == ' ') pattern++;
		if (statement.substr(pattern, 2) == "'%" || statement.substr(pattern, 2) == "\"%") return true;
	}
	return false;
}

} // namespace

std::string plan_suggestion(const Json &plan, std::string_view statement, std::string_view kind)
{
	auto scan = single_scan(plan);
	if (!scan) return {};
	const Conditions conditions(kind, scan->table);
	if (!conditions.understood) return {};
	if (!conditions.has_where) return {};
	std::vector<std::string> columns = conditions.equal;
	if (!conditions.range.empty()) columns.push_back(conditions.range[0]);
	if (columns.empty()) {
		if (!conditions.likes || !likes_any_beginning(statement)) return {};
		return "no index finds what a LIKE that begins with % looks for: a full-text index would, or a pattern without "
			   "it";
	}
	if (scan->has_keys)
		return "there is an index, but the database reads the table all the same: too many rows match, or its "
			   "statistics are old";
	const std::string name = conditions.table.substr(conditions.table.rfind('.') + 1);
	std::string list, suffix;
	for (const std::string &column : columns) {
		list += (list.empty() ? "" : ", ") + column;
		suffix += "_" + column;
	}
	return "no index serves " + conditions.first + ": CREATE INDEX " + name + suffix + " ON " + conditions.table +
		" (" + list + ")";
}

} // namespace quorbit
