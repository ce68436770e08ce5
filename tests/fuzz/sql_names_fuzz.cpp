// Statements: their cleaning, the names they are listed under, and which of them a plan may be asked for, the last against
// what each database would make of the text.
// sources: ext/zqp_tracer_sql_name.cpp ext/zqp_wrapper_explain.cpp ext/zqp_helper_string.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp tests/fuzz/engine.cpp
#include "require.h"
#include "zqp_tracer.h"
#include "zqp_wrapper_database.h"

namespace {

bool is_blank(char ch) { return ch == ' ' || (ch >= '\t' && ch <= '\r'); }
bool is_word(char ch) { return isalnum((unsigned char)ch) || ch == '_' || ch == '$' || (ch & 0x80); }

// How a database reads text: what its lexer does differently from the others'.
struct Dialect {
	bool backslash_escapes; // in '' and ""
	bool backticks, brackets, hash_comments, nested_comments, dollar_quotes, code_in_comments;
	bool blank_after_dashes; // "--" begins a comment only in front of white space
	bool return_ends_line;
};
constexpr Dialect DIALECTS[] = {
	{true, true, false, true, false, false, true, true, false},      // MySQL, MariaDB
	{false, false, false, false, true, true, false, false, true},    // PostgreSQL
	{false, true, true, false, false, false, false, false, false},   // SQLite
};

size_t behind(const std::string &text, const std::string &end, size_t from)
{
	size_t at = text.find(end, from);
	return at == std::string::npos ? text.size() : at + end.size();
}

size_t behind_quotes(const std::string &text, size_t at, char close, bool escapes)
{
	for (at++; at < text.size() && text[at] != close; at++) {
		at += escapes && text[at] == '\\';
	}
	return at + 1;
}

size_t behind_block(const std::string &text, size_t at, bool nested)
{
	int depth = 1;
	for (at += 2; at < text.size() && depth; at++) {
		if (!text.compare(at, 2, "*/")) {
			depth--, at++;
		} else if (nested && !text.compare(at, 2, "/*")) {
			depth++, at++;
		}
	}
	return at;
}

// Behind the quotes or comment that begin at `at`; `at` itself when none do.
size_t skip(const Dialect &dialect, const std::string &text, size_t at)
{
	char ch = text[at], next = text[at + 1], last = at ? text[at - 1] : ' ';
	bool dashes = ch == '-' && next == '-' && (!dialect.blank_after_dashes || (unsigned char)text[at + 2] <= ' ');
	if (dashes || (ch == '#' && dialect.hash_comments)) {
		size_t end = text.find_first_of(dialect.return_ends_line ? "\r\n" : "\n", at);
		return end == std::string::npos ? text.size() : end;
	}
	if (ch == '/' && next == '*' && !(dialect.code_in_comments && (text[at + 2] == '!' || text[at + 2] == 'M'))) {
		return behind_block(text, at, dialect.nested_comments);
	}
	if (ch == '\'' || ch == '"' || (ch == '`' && dialect.backticks)) {
		bool escape_string = dialect.dollar_quotes && ch == '\'' && (last == 'E' || last == 'e');
		return behind_quotes(text, at, ch, (dialect.backslash_escapes && ch != '`') || escape_string);
	}
	if (ch == '[' && dialect.brackets) {
		return behind_quotes(text, at, ']', false);
	}
	if (ch == '$' && dialect.dollar_quotes && !is_word(last)) {
		size_t tag = at + 1;
		while (tag < text.size() && is_word(text[tag]) && text[tag] != '$') {
			tag++;
		}
		return text[tag] == '$' && !isdigit((unsigned char)next) ? behind(text, text.substr(at, tag + 1 - at), tag + 1) : at;
	}
	return at;
}

bool has_second_statement(const Dialect &dialect, const std::string &text)
{
	bool ended = false;
	for (size_t at = 0; at < text.size();) {
		size_t end = skip(dialect, text, at);
		if (end == at) {
			if (ended && !is_blank(text[at])) {
				return true;
			}
			ended = ended || text[at] == ';';
			end = at + 1;
		} else if (ended) {
			return true; // a comment may stand there, but is not worth telling from quotes
		}
		at = end;
	}
	return false;
}

void check_cleaned(const CText &statement)
{
	char *cleaned = rm_comment(statement);
	size_t len = strlen(cleaned);
	REQUIRE(len <= ZQ_MAX_STATEMENT && len <= strlen(statement));
	for (size_t i = 0; i < len; i++) {
		REQUIRE(!isSpace(cleaned[i]) || (cleaned[i] == ' ' && cleaned[i + 1] != ' '));
	}
	efree(cleaned);
}

void check_name(const CText &statement)
{
	sql_element sql = {"PDO", statement, NULL, NULL, 0};
	char *allocated = metric_name_from_sql(&sql);
	std::string name(allocated);
	efree(allocated);
	REQUIRE(name.starts_with("Database PDO/"));
	size_t last = name.rfind('/');
	std::string operation = name.substr(last + 1), table = name.substr(13, last < 13 ? 0 : last - 13);
	REQUIRE(operation == "SELECT" || operation == "DELETE" || operation == "UPDATE" || operation == "INSERT" || operation == "CALL");
	REQUIRE(last >= 13 && table.find_first_of(", ") == std::string::npos);
	REQUIRE(statement.str().find(table) != std::string::npos);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	CText statement(std::string_view((const char *)data, size));
	check_cleaned(statement);
	check_name(statement);
	zq_is_plannable(statement);
	if (zq_is_single_statement(statement)) {
		for (const Dialect &dialect : DIALECTS) {
			REQUIRE(!has_second_statement(dialect, statement.str()));
		}
	}
	std::string before = statement.str();
	zq_obfuscate_sql(statement);
	REQUIRE(statement.str().size() == before.size() && statement.str().find_first_of("0123456789\t\r\n") == std::string::npos);
	return 0;
}
