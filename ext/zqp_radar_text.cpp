/* The constructs, in the code of a file token by token. */
#include "zqp_radar_text.h"

#include "zqp_radar_names.h"
#include "zqp_radar_reader.h"

namespace {

constexpr std::string_view REAL_CAST = "(real) cast", BRACES = "offset in braces",
						   NESTED_TERNARY = "nested ternary without parentheses",
						   INDIRECT_INDEX = "index behind a variable variable",
						   SCRIPT_TAG = "<script language=\"php\">", ASP_TAG = "<% tag",
						   ATTRIBUTE = "comment that begins with #[";
static_assert(zq_radar_has_phrase(ZQ_SIGN_SYNTAX, REAL_CAST) && zq_radar_has_phrase(ZQ_SIGN_SYNTAX, BRACES) &&
		zq_radar_has_phrase(ZQ_SIGN_SYNTAX, NESTED_TERNARY) && zq_radar_has_phrase(ZQ_SIGN_SYNTAX, INDIRECT_INDEX) &&
		zq_radar_has_phrase(ZQ_SIGN_SYNTAX, SCRIPT_TAG) && zq_radar_has_phrase(ZQ_SIGN_SYNTAX, ASP_TAG) &&
		zq_radar_has_phrase(ZQ_SIGN_SYNTAX, ATTRIBUTE),
	"a construct has no rule");

void note(const zq_reader *in, std::string_view name)
{
	in->found(in->context, name, in->line);
}

/* ---- what is open ---- */

void close(zq_reader *in)
{
	if (!in->depth) {
		in->before = ZQ_CODE_OTHER;
		return;
	}
	const zq_nest *closed = &in->nests[--in->depth];
	in->ternary_count = closed->first_ternary;
	in->before = closed->kind == ZQ_SQUARE || closed->kind == ZQ_NAME_OR_OFFSET ? ZQ_CODE_CLOSED : ZQ_CODE_OTHER;
}

/* ---- a ? b : c ? d : e ---- */

void end_statement(zq_reader *in)
{
	in->ternary_count = zq_first_ternary(in);
	in->before = ZQ_CODE_OTHER;
}

/* An operator that binds weaker than ?: follows, or the next expression of a list: what has its colon is complete. */
void end_complete(zq_reader *in)
{
	while (in->ternary_count > zq_first_ternary(in) && in->ternaries[in->ternary_count - 1].is_past_colon) {
		in->ternary_count--;
	}
}

void read_question(zq_reader *in)
{
	size_t ahead = 1;
	while (zq_is_space(zq_peek(in, ahead))) {
		ahead++;
	}
	const zq_ternary begun = {false, zq_peek(in, ahead) == ':'};
	zq_ternary *last = in->ternary_count > zq_first_ternary(in) ? &in->ternaries[in->ternary_count - 1] : NULL;
	if (last && last->is_past_colon) {
		if (!last->is_short || !begun.is_short) {
			note(in, NESTED_TERNARY);
		}
		*last = begun;
	} else if (in->ternary_count < ZQ_MOST_NESTED) {
		in->ternaries[in->ternary_count++] = begun;
	}
	zq_skip(in, 1);
	in->before = ZQ_CODE_OTHER;
}

/* Of the innermost ?: that lacks it; else of a label or a case. */
void read_colon(zq_reader *in)
{
	end_complete(in);
	if (in->ternary_count > zq_first_ternary(in)) {
		in->ternaries[in->ternary_count - 1].is_past_colon = true;
	}
	zq_skip(in, 1);
	in->before = ZQ_CODE_OTHER;
}

/* ---- code ---- */

/* Words whose operators bind weaker than ?:, or that begin an expression. */
bool binds_weaker(std::string_view word)
{
	for (std::string_view other : {"and", "or", "xor", "print", "echo", "return", "include", "include_once", "require",
			 "require_once", "yield"}) {
		if (zq_radar_compare(word, other) == 0) {
			return true;
		}
	}
	return false;
}

constexpr size_t LONGEST_WORD = 15; /* __halt_compiler */

void read_name(zq_reader *in)
{
	std::string_view word = in->text.substr(in->at, zq_name_length(in));
	bool is_member = in->before == ZQ_CODE_ARROW, is_alone = !is_member && in->before != ZQ_CODE_COLONS;
	in->before = is_member ? ZQ_CODE_MEMBER : ZQ_CODE_OTHER;
	in->at += word.size();
	if (!is_alone || word.size() > LONGEST_WORD) {
		return;
	}
	if (binds_weaker(word)) {
		end_complete(in);
	} else if (zq_radar_compare(word, "__halt_compiler") == 0) {
		in->at = in->text.size();
	}
}

void read_dollar(zq_reader *in)
{
	in->at++;
	if (!zq_begins_name(zq_peek(in))) {
		in->before = ZQ_CODE_DOLLAR;
		return;
	}
	in->at += zq_name_length(in);
	in->before = in->before == ZQ_CODE_DOLLAR || in->before == ZQ_CODE_ARROW ? ZQ_CODE_INDIRECT : ZQ_CODE_VARIABLE;
}

/* `(`, or the whole of a cast. */
void read_round(zq_reader *in)
{
	size_t ahead = 1;
	while (zq_is_blank(zq_peek(in, ahead))) {
		ahead++;
	}
	if (zq_goes_on(in, "real", ahead)) {
		ahead += 4;
		while (zq_is_blank(zq_peek(in, ahead))) {
			ahead++;
		}
		if (zq_peek(in, ahead) == ')') {
			note(in, REAL_CAST);
			zq_skip(in, ahead + 1);
			in->before = ZQ_CODE_OTHER;
			return;
		}
	}
	zq_skip(in, 1);
	zq_open_nest(in, ZQ_ROUND);
}

void read_brace(zq_reader *in)
{
	bool is_offset = in->before == ZQ_CODE_VARIABLE || in->before == ZQ_CODE_INDIRECT || in->before == ZQ_CODE_MEMBER ||
		in->before == ZQ_CODE_CLOSED;
	bool is_name = in->before == ZQ_CODE_DOLLAR || in->before == ZQ_CODE_ARROW || in->before == ZQ_CODE_COLONS;
	if (is_offset) {
		note(in, BRACES);
	}
	zq_skip(in, 1);
	zq_open_nest(in, is_offset || is_name ? ZQ_NAME_OR_OFFSET : ZQ_BLOCK);
}

void read_closing(zq_reader *in)
{
	const zq_nest *last = in->depth ? &in->nests[in->depth - 1] : NULL;
	bool is_in_text = last && last->kind == ZQ_IN_TEXT && zq_peek(in) == '}';
	const char quote = is_in_text ? last->quote : '\0';
	const std::string_view label = is_in_text ? last->label : std::string_view();
	zq_skip(in, 1);
	close(in);
	if (is_in_text) {
		zq_read_text(in, quote, label);
	}
}

/* Operators; those that assign bind weaker than ?:. */
void read_operator(zq_reader *in)
{
	for (std::string_view same : {"===", "!==", "==", "!=", "<>", "<=", ">="}) {
		if (zq_goes_on(in, same)) {
			in->at += same.size();
			in->before = ZQ_CODE_OTHER;
			return;
		}
	}
	for (std::string_view assigns : {"=", "<<=", ">>=", "**=", "+=", "-=", "*=", "/=", ".=", "%=", "&=", "|=", "^="}) {
		if (zq_goes_on(in, assigns)) {
			end_complete(in);
			in->at += assigns.size() + zq_goes_on(in, "=>");
			in->before = ZQ_CODE_OTHER;
			return;
		}
	}
	in->before = zq_goes_on(in, "->") ? ZQ_CODE_ARROW : zq_goes_on(in, "::") ? ZQ_CODE_COLONS : ZQ_CODE_OTHER;
	zq_skip(in, in->before == ZQ_CODE_OTHER ? 1 : 2);
}

/* ---- #[ ---- */

/* Whether an attribute may stand before it. */
bool is_declaration(std::string_view text, bool is_in_parentheses)
{
	if (is_in_parentheses) { /* a parameter: its type, & or $ */
		return !text.empty() && (zq_begins_name(text[0]) || text[0] == '\\' || text[0] == '&' || text[0] == '$');
	}
	for (std::string_view word : {"abstract", "final", "class", "interface", "trait", "function", "const", "public",
			 "protected", "private", "static", "var"}) {
		if (text.size() > word.size() && zq_is_space(text[word.size()]) &&
			zq_radar_compare(text.substr(0, word.size()), word) == 0) {
			return true;
		}
	}
	return false;
}

/* What follows the white space and comments that text begins with. */
std::string_view behind_comments(std::string_view text)
{
	for (;;) {
		size_t at = text.find_first_not_of(" \t\r\n");
		text.remove_prefix(at == std::string_view::npos ? text.size() : at);
		bool is_line = text.starts_with('#') || text.starts_with("//");
		if (!is_line && !text.starts_with("/*")) {
			return text;
		}
		size_t end = is_line ? text.find_first_of("\r\n") : text.find("*/", 2);
		text.remove_prefix(end == std::string_view::npos ? text.size() : end + (is_line ? 1 : 2));
	}
}

constexpr size_t MOST_ATTRIBUTES = 4096; /* bytes behind one up to its declaration */

/* A name in brackets that take the line, in front of a declaration: an attribute in code that is made for PHP 8 as
 * well, which PHP 5.6 passes over. */
bool is_attribute(const zq_reader *in)
{
	const std::string_view rest = in->text.substr(in->at, MOST_ATTRIBUTES);
	const std::string_view line = rest.substr(0, rest.find_first_of("\r\n"));
	size_t last = line.find_last_not_of(" \t");
	bool is_name = line.size() > 2 && (zq_begins_name(line[2]) || line[2] == '\\');
	if (!is_name || line[last] != ']') {
		return false;
	}
	bool is_in_parentheses = in->depth && in->nests[in->depth - 1].kind == ZQ_ROUND;
	const std::string_view next = behind_comments(rest.substr(line.size()));
	return is_declaration(next, is_in_parentheses) || (next.empty() && rest.size() == MOST_ATTRIBUTES);
}

/* ---- tokens ---- */

/* One token, a comment or white space. */
void read_token(zq_reader *in)
{
	char c = zq_peek(in);
	if (zq_is_space(c)) {
		zq_skip(in, 1);
	} else if (c == '#' || zq_goes_on(in, "//")) {
		if (zq_goes_on(in, "#[") && !is_attribute(in)) {
			note(in, ATTRIBUTE);
		}
		zq_read_line_comment(in);
	} else if (zq_goes_on(in, "/*")) {
		zq_read_block_comment(in);
	} else if (zq_name_length(in)) {
		read_name(in);
	} else if (c == '$') {
		read_dollar(in);
	} else if (c == '\'') {
		zq_read_plain_text(in);
	} else if (c == '"' || c == '`') {
		zq_skip(in, 1);
		zq_read_text(in, c, {});
	} else if (c == '(') {
		read_round(in);
	} else if (c == '{') {
		read_brace(in);
	} else if (c == '[') {
		if (in->before == ZQ_CODE_INDIRECT) {
			note(in, INDIRECT_INDEX);
		}
		zq_skip(in, 1);
		zq_open_nest(in, ZQ_SQUARE);
	} else if (c == ')' || c == ']' || c == '}') {
		read_closing(in);
	} else if (c == '?') {
		read_question(in);
	} else if (c == ':' && zq_peek(in, 1) != ':') {
		read_colon(in);
	} else if (c == ';') {
		zq_skip(in, 1);
		end_statement(in);
	} else if (c == ',') {
		zq_skip(in, 1);
		end_complete(in);
		in->before = ZQ_CODE_OTHER;
	} else if (!zq_goes_on(in, "<<<") || !zq_read_heredoc(in)) {
		read_operator(in);
	}
}

void read_code(zq_reader *in)
{
	while (in->at < in->text.size()) {
		char c = zq_peek(in);
		size_t tag = c == '?' || c == '%' || c == '<' ? zq_closing_tag(in) : 0;
		if (tag) {
			zq_skip(in, tag);
			end_statement(in);
			return;
		}
		read_token(in);
	}
}

} // namespace

void zq_radar_read_text(std::string_view text, zq_radar_tags tags, zq_radar_found found, void *context)
{
	zq_reader in; /* its lists are filled before they are read */
	in.text = text;
	in.at = 0;
	in.line = 1;
	in.tags = tags;
	in.found = found;
	in.context = context;
	in.before = ZQ_CODE_OTHER;
	in.depth = in.ternary_count = 0;
	while (in.at < text.size()) {
		zq_tag tag = zq_read_html(&in);
		if (tag != ZQ_TAG_PHP) {
			note(&in, tag == ZQ_TAG_ASP ? ASP_TAG : SCRIPT_TAG);
		}
		read_code(&in);
	}
}
