#include "engine_fixture.h"

#include "zqp_board.h"
#include "zqp_naming.h"

class Naming : public EngineTest {};

TEST_F(Naming, AppendsCapturedParameters)
{
	zend_is_auto_global(ZEND_STRL("_SERVER") TSRMLS_CC);
	const struct { int track; const char *name, *text; } texts[] = {
		{TRACK_VARS_GET, "page", "3"}, {TRACK_VARS_GET, "sort", "asc"}, {TRACK_VARS_GET, "quote", "a\"\xc3\xa9\xff" "cut"},
		{TRACK_VARS_GET, "empty", ""}, {TRACK_VARS_POST, "id", "9"}, {TRACK_VARS_SERVER, "HTTP_X_TENANT", "acme"},
	};
	for (const auto &set : texts) {
		add_assoc_string(PG(http_globals)[set.track], set.name, const_cast<char *>(set.text), 1);
	}
	add_assoc_long(PG(http_globals)[TRACK_VARS_GET], "number", -7);
	add_assoc_double(PG(http_globals)[TRACK_VARS_GET], "float", 1.5);
	const auto suffix_of = [&](const std::string &uri, const std::string &config) {
		char *text = (char *)"unset";
		int len = get_request_params(&text, uri.c_str(), (int)uri.size(), config.c_str() TSRMLS_CC);
		EXPECT_EQ(len, text ? (int)strlen(text) : 0);
		return taken(text);
	};
	expect_made([&](const std::string &config) { return suffix_of("/list.php", config); }, {
		{"/list.php,page sort", "?page=3&sort=asc"},
		{"/list.php,sort&absent[page],id,X-Tenant x_tenant", "?sort=asc&page=3&id=9&X-Tenant=acme&x_tenant=acme"},
		{"/list.php,,id", "(null)"}, /* an empty group is none: "id" is looked for in the query */
		{"/list.php,quote empty number float", "?quote=a\\\"\\u00e9&empty=&number=-7&float="},
		{"/a|/list.php|/list.php,page|/list.php,sort", "?page=3"},
		{"/list.php", "(null)"}, {"/list.php,", "(null)"}, {"/LIST.php,page", "(null)"}, {"/list.phpx,page", "(null)"},
		{"page,/list.php", "(null)"}, {"", "(null)"}, {"|||,,,", "(null)"},
	});
	EXPECT_EQ(suffix_of(std::string(5000, 'x'), "/list.php,page"), "(null)");
	add_assoc_string(PG(http_globals)[TRACK_VARS_GET], "long", const_cast<char *>(std::string(255, '"').append("xy").c_str()), 1);
	std::string escaped;
	for (int i = 0; i < 255; i++) {
		escaped += "\\\"";
	}
	EXPECT_EQ(suffix_of("/a", "/a,long"), "?long=" + escaped + "x"); /* what the visitor sent counts, not how it is written */
}

TEST_F(Naming, ShowsANewNameOnTheBoard)
{
	zq_board_slot slot = {};
	ZQG(board) = &slot;
	for (const std::string &name : {std::string("WebAction/shop/pay"), std::string(300, 'x')}) {
		zq_set_action_name(estrdup(name.c_str()), ZQ_NAME_CONTROLLER TSRMLS_CC);
		EXPECT_EQ(std::string(slot.action, slot.action_length), name.substr(0, sizeof(slot.action)));
		EXPECT_EQ(slot.sequence % 2, 0u) << "it is whole";
	}
	ZQG(board) = NULL;
}
