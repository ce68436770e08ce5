// A scanner that knows just enough SQL to find the values in it.
#include "facts/sql_text.h"

#include <algorithm>
#include <strings.h>

namespace quorbit {

namespace {

bool is_digit(char byte)
{
	return byte >= '0' && byte <= '9';
}
bool is_blank(char byte)
{
	return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

// Bytes of names, of placeholders such as :id and $1, and all of UTF-8.
bool is_word(char byte)
{
	bool letter = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
	return letter || is_digit(byte) || byte == '_' || byte == '$' || byte == '@' || byte == ':' ||
		static_cast<unsigned char>(byte) >= 0x80;
}

bool same_word(std::string_view a, std::string_view b)
{
	return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

class Scanner {
public:
	Scanner(std::string_view text, bool mysql) : text_(text), mysql_(mysql) {}

	std::string run()
	{
		while (at_ < text_.size()) step();
		while (!out_.empty() && out_.back() == ' ') out_.pop_back();
		return std::move(out_);
	}

private:
	char next(size_t ahead) const { return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\0'; }

	void step()
	{
		char byte = text_[at_];
		size_t comment = comment_length();
		if (comment || is_blank(byte)) {
			at_ += comment ? comment : 1;
			word_ = {};
			if (!out_.empty() && out_.back() != ' ') out_ += ' ';
		} else if (byte == '\'' || (byte == '"' && mysql_)) {
			at_ += quoted_length(byte, mysql_ || same_word(word_, "E"));
			value();
		} else if (byte == '"' || byte == '`') {
			other(quoted_length(byte, false));
		} else if (size_t length = dollar_quoted_length()) {
			at_ += length;
			value();
		} else if (is_digit(byte) || (byte == '.' && is_digit(next(1)))) {
			at_ += number_length();
			value();
		} else if (byte == '?') {
			at_++;
			value();
		} else if (is_word(byte)) {
			name();
		} else {
			other(1);
		}
	}

	void value()
	{
		word_ = {};
		size_t end = out_.find_last_not_of(' ') + 1;
		std::string_view before = std::string_view(out_).substr(0, end);
		if (in_list_ && before.ends_with("...,")) {
			out_.resize(end - 1);
		} else if (in_list_ && before.ends_with("?,")) {
			out_.resize(end);
			out_ += " ...";
		} else {
			out_ += '?';
		}
	}

	void name()
	{
		size_t begin = at_;
		// A name after a dot may begin with a digit.
		while (at_ < text_.size() && (is_word(text_[at_]) || text_[at_] == '.')) at_++;
		word_ = text_.substr(begin, at_ - begin);
		list_may_begin_ = same_word(word_, "IN");
		out_ += word_;
	}

	// Anything else, as it is.
	void other(size_t length)
	{
		char byte = text_[at_];
		if (byte == '(') in_list_ = list_may_begin_;
		if (byte == ')') in_list_ = false;
		if (byte == ',' && !out_.empty() && out_.back() == ' ') out_.pop_back();
		list_may_begin_ = false;
		word_ = {};
		out_ += text_.substr(at_, length);
		at_ += length;
	}

	size_t comment_length() const
	{
		// MySQL reads "5--3" as a difference.
		bool dashes = next(0) == '-' && next(1) == '-' && (!mysql_ || at_ + 2 >= text_.size() || is_blank(next(2)));
		if (dashes || (mysql_ && next(0) == '#')) return std::min(text_.find('\n', at_), text_.size()) - at_;
		if (next(0) != '/' || next(1) != '*') return 0;
		size_t end = text_.find("*/", at_ + 2);
		return (end == std::string_view::npos ? text_.size() : end + 2) - at_;
	}

	// A quote that never ends takes all that is left.
	size_t quoted_length(char quote, bool escapes) const
	{
		for (size_t end = at_ + 1; end < text_.size(); end++) {
			if (escapes && text_[end] == '\\')
				end++;
			else if (text_[end] == quote && end + 1 < text_.size() && text_[end + 1] == quote)
				end++;
			else if (text_[end] == quote)
				return end + 1 - at_;
		}
		return text_.size() - at_;
	}

	// PostgreSQL's $tag$text$tag$; 0 for anything else, such as the placeholder $1.
	size_t dollar_quoted_length() const
	{
		if (next(0) != '$' || is_digit(next(1)) || mysql_) return 0;
		size_t tag = 1;
		while (is_word(next(tag)) && next(tag) != '$') tag++;
		if (next(tag) != '$') return 0;
		size_t end = text_.find(text_.substr(at_, tag + 1), at_ + tag + 1);
		return end == std::string_view::npos ? text_.size() - at_ : end + tag + 1 - at_;
	}

	// 12, 1.5, .5, 1e-3, 0x1F
	size_t number_length() const
	{
		size_t length = 0;
		for (bool sign_may_follow = false; at_ + length < text_.size(); length++) {
			char byte = next(length);
			bool sign = sign_may_follow && (byte == '+' || byte == '-');
			if (!sign && byte != '.' && !(is_word(byte) && byte != ':')) break;
			sign_may_follow = (byte == 'e' || byte == 'E') && next(1) != 'x';
		}
		return length;
	}

	std::string_view text_;
	bool mysql_;
	size_t at_ = 0;
	std::string out_;
	std::string_view word_; // the name just read, when nothing followed it
	bool list_may_begin_ = false, in_list_ = false;
};

} // namespace

std::string normalise_sql(std::string_view statement, std::string_view vendor)
{
	return Scanner(statement, vendor == "MySQL").run();
}

namespace {

// The next word, name or other character of a statement without its values; "" at its end. Quotes of names are left
// out.
std::string_view take_token(std::string_view &text)
{
	text.remove_prefix(std::min(text.find_first_not_of(" (`\"["), text.size()));
	size_t length = 0;
	while (length < text.size() && (is_word(text[length]) || text[length] == '.')) length++;
	std::string_view token = text.substr(0, length ? length : 1);
	text.remove_prefix(token.size());
	return token;
}

} // namespace

SqlSubject subject_of_sql(std::string_view kind)
{
	SqlSubject subject;
	std::string_view word = take_token(kind);
	for (char byte : word) subject.verb += byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 32) : byte;
	const bool names_table_next = subject.verb == "UPDATE" || subject.verb == "TRUNCATE";
	for (bool take = names_table_next; !kind.empty();) {
		word = take_token(kind);
		const bool is_filler = same_word(word, "SELECT") || same_word(word, "TABLE") || same_word(word, "ONLY") ||
			same_word(word, "IGNORE") || same_word(word, "LOW_PRIORITY");
		if (take && !is_filler) {
			if (!word.empty() && is_word(word[0])) subject.table = word;
			break;
		}
		if (take && same_word(word, "SELECT")) take = false; // a table of its own makes the rows
		take = take || same_word(word, "FROM") || same_word(word, "INTO") || same_word(word, "JOIN");
	}
	return subject;
}

} // namespace quorbit
