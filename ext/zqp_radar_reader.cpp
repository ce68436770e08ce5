/* Quotes, comments and tags. */
#include "zqp_radar_reader.h"

/* ---- brackets ---- */

unsigned zq_first_ternary(const zq_reader *in)
{
	return in->depth ? in->nests[in->depth - 1].first_ternary : 0;
}

void zq_open_nest(zq_reader *in, zq_nest_kind kind, char quote, std::string_view label)
{
	if (in->depth == ZQ_MOST_NESTED) {
		in->at = in->text.size();
		return;
	}
	in->nests[in->depth++] = {kind, quote, label, in->ternary_count};
	in->before = ZQ_CODE_OTHER;
}

/* ---- texts in quotes ---- */

/* The line with the label of a heredoc or nowdoc. */
static bool is_label(const zq_reader *in, std::string_view label)
{
	if (!in->text.substr(in->at).starts_with(label)) {
		return false;
	}
	size_t behind = label.size() + (zq_peek(in, label.size()) == ';');
	return in->at + behind >= in->text.size() || zq_peek(in, behind) == '\n' || zq_peek(in, behind) == '\r';
}

void zq_read_text(zq_reader *in, char quote, std::string_view label)
{
	bool at_line = !quote && in->at && zq_is_space(in->text[in->at - 1]);
	while (in->at < in->text.size()) {
		char c = zq_peek(in), next = zq_peek(in, 1);
		if (!quote && at_line && is_label(in, label)) {
			zq_skip(in, label.size());
			break;
		}
		at_line = c == '\n' || (c == '\r' && next != '\n');
		if (quote && c == quote) {
			zq_skip(in, 1);
			break;
		}
		if ((c == '{' && next == '$') || (c == '$' && next == '{')) {
			zq_skip(in, c == '$' ? 2 : 1);
			zq_open_nest(in, ZQ_IN_TEXT, quote, label);
			return;
		}
		zq_skip(in, c == '\\' && (quote || (next != '\n' && next != '\r')) ? 2 : 1);
	}
	in->before = ZQ_CODE_OTHER;
}

void zq_read_plain_text(zq_reader *in)
{
	zq_skip(in, 1);
	while (in->at < in->text.size() && zq_peek(in) != '\'') {
		zq_skip(in, zq_peek(in) == '\\' ? 2 : 1);
	}
	zq_skip(in, 1);
	in->before = ZQ_CODE_OTHER;
}

static void read_nowdoc(zq_reader *in, std::string_view label)
{
	while (in->at < in->text.size()) {
		if (is_label(in, label)) {
			zq_skip(in, label.size());
			return;
		}
		size_t end = in->text.find('\n', in->at);
		zq_go_to(in, end == std::string_view::npos ? in->text.size() : end + 1);
	}
}

/* `<<<`, a label as it is or in quotes, and the end of the line. */
bool zq_read_heredoc(zq_reader *in)
{
	size_t ahead = 3;
	while (zq_is_blank(zq_peek(in, ahead))) {
		ahead++;
	}
	char quote = zq_peek(in, ahead) == '\'' || zq_peek(in, ahead) == '"' ? zq_peek(in, ahead) : '\0';
	ahead += quote != 0;
	size_t length = zq_begins_name(zq_peek(in, ahead)) ? zq_name_length(in, ahead) : 0;
	size_t behind = ahead + length + (quote != 0);
	bool is_one = length && (!quote || zq_peek(in, ahead + length) == quote) &&
		(zq_peek(in, behind) == '\n' || zq_peek(in, behind) == '\r');
	if (!is_one) {
		return false;
	}
	std::string_view label = in->text.substr(in->at + ahead, length);
	zq_skip(in, behind + (zq_peek(in, behind) == '\r' && zq_peek(in, behind + 1) == '\n' ? 2 : 1));
	in->before = ZQ_CODE_OTHER;
	if (quote == '\'') {
		read_nowdoc(in, label);
	} else {
		zq_read_text(in, '\0', label);
	}
	return true;
}

/* ---- comments and tags ---- */

/* The length of the tag that ends code, 0 for none. */
size_t zq_closing_tag(const zq_reader *in)
{
	if (zq_goes_on(in, "?>") || (in->tags.is_asp && zq_goes_on(in, "%>"))) {
		return 2;
	}
	if (zq_peek(in) != '<' || !zq_goes_on(in, "</script")) {
		return 0;
	}
	size_t length = 8;
	while (zq_is_space(zq_peek(in, length))) {
		length++;
	}
	return zq_peek(in, length) == '>' ? length + 1 : 0;
}

/* `//` and `#` end with the line, or before a tag. */
void zq_read_line_comment(zq_reader *in)
{
	while (in->at < in->text.size() && zq_peek(in) != '\n' && zq_peek(in) != '\r' && !zq_goes_on(in, "?>") &&
		!(in->tags.is_asp && zq_goes_on(in, "%>"))) {
		in->at++;
	}
}

void zq_read_block_comment(zq_reader *in)
{
	size_t end = in->text.find("*/", in->at + 2);
	zq_go_to(in, end == std::string_view::npos ? in->text.size() : end + 2);
}

/* `<script language="php">` with any of its quotes; 0 for another. */
static size_t script_tag(const zq_reader *in)
{
	size_t at = 7;
	auto pass_spaces = [&] {
		while (zq_is_space(zq_peek(in, at))) {
			at++;
		}
	};
	if (!zq_goes_on(in, "<script") || !zq_is_space(zq_peek(in, at))) {
		return 0;
	}
	pass_spaces();
	if (!zq_goes_on(in, "language", at)) {
		return 0;
	}
	at += 8;
	pass_spaces();
	if (zq_peek(in, at++) != '=') {
		return 0;
	}
	pass_spaces();
	char quote = zq_peek(in, at) == '"' || zq_peek(in, at) == '\'' ? zq_peek(in, at++) : '\0';
	if (!zq_goes_on(in, "php", at) || (quote && zq_peek(in, at + 3) != quote)) {
		return 0;
	}
	at += quote ? 4 : 3;
	pass_spaces();
	return zq_peek(in, at) == '>' ? at + 1 : 0;
}

/* The length of the tag that begins code, and which it is; 0 for none. */
static size_t opening_tag(const zq_reader *in, zq_tag *tag)
{
	size_t length = 0;
	*tag = ZQ_TAG_PHP;
	if (zq_goes_on(in, "<?=")) {
		length = 3;
	} else if (zq_goes_on(in, "<?php") && zq_is_space(zq_peek(in, 5))) {
		length = 5;
	} else if (in->tags.is_short && zq_goes_on(in, "<?")) {
		length = 2;
	} else if (in->tags.is_asp && zq_goes_on(in, "<%")) {
		*tag = ZQ_TAG_ASP;
		length = zq_peek(in, 2) == '=' ? 3 : 2;
	} else if ((length = script_tag(in))) {
		*tag = ZQ_TAG_SCRIPT;
	}
	return length;
}

zq_tag zq_read_html(zq_reader *in)
{
	zq_tag tag = ZQ_TAG_PHP;
	size_t length = 0;
	while (!length && in->at < in->text.size()) {
		zq_go_to(in, in->text.find('<', in->at));
		length = opening_tag(in, &tag);
		zq_skip(in, length ? length : 1);
	}
	return tag;
}
