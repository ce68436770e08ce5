#include "engine_fixture.h"

#include "zqp_naming.h"

class Naming : public EngineTest {
protected:
	void TearDown() override
	{
		forget();
		SG(request_info).request_uri = nullptr;
		SG(request_info).request_method = nullptr;
		ZQG(web_action_uri_params_captured) = ZQG(naming_rules) = nullptr;
		ZQG(auto_action_naming) = 0;
		EngineTest::TearDown();
	}
	void forget()
	{
		if (ZQG(action_name)) {
			efree(ZQG(action_name));
		}
		ZQG(action_name) = nullptr;
		ZQG(action_name_level) = 0;
	}
	void set(int track, const char *name, const std::string &text)
	{
		add_assoc_stringl(array(track), name, const_cast<char *>(text.data()), text.size(), 1);
	}
	zval *array(int track)
	{
		zend_is_auto_global(ZEND_STRL("_SERVER") TSRMLS_CC);
		return PG(http_globals)[track];
	}
	void set_script(const char *file)
	{
		zend_hash_del(Z_ARRVAL_P(array(TRACK_VARS_SERVER)), "SCRIPT_FILENAME", sizeof("SCRIPT_FILENAME"));
		if (file) {
			set(TRACK_VARS_SERVER, "SCRIPT_FILENAME", file);
		}
	}
	std::string named(const char *uri)
	{
		forget();
		SG(request_info).request_uri = const_cast<char *>(uri);
		init_action_name(TSRMLS_C);
		return ZQG(action_name) ? ZQG(action_name) : "(null)";
	}
	std::string suffix(const std::string &uri, const char *config)
	{
		char *text = (char *)"unset";
		int len = get_request_params(&text, uri.c_str(), (int)uri.size(), config TSRMLS_CC);
		EXPECT_EQ(len, text ? (int)strlen(text) : 0);
		return taken(text);
	}
};

TEST_F(Naming, CleansPaths)
{
	const struct { const char *path, *name; } cases[] = {
		{"", "index"}, {"/", "index"}, {"//", "%2F"}, {"a", "a"},
		{"/user/12345/a1/edit", "user%2F*%2Fa1%2Fedit"},
		{"a1b", "a1b"}, {"a12b", "a*b"}, {"1/2", "1%2F2"}, {"12/345", "*%2F*"}, {"1.23.4", "1.*.4"},
		{"/\xc3\xa9?x=10", "\xc3\xa9?x=*"},
	};
	for (const auto &c : cases) {
		smart_str action = {};
		zq_append_char(&action, '9'); /* what stands there already is no part of a run */
		zq_append_action(&action, c.path);
		EXPECT_EQ(taken(action), std::string("9") + c.name) << c.path;
	}
}

TEST_F(Naming, NamesTheRequestByItsUriOrScript)
{
	const struct { int automatic; const char *uri, *script, *name; } cases[] = {
		{0, "/", nullptr, "WebAction/URI/index"},
		{0, "/order/2017/view?id=5", nullptr, "WebAction/URI/order%2F*%2Fview"},
		{0, "/index.php/user/77?x=1", "/srv/a.php", "WebAction/URI/index.php%2Fuser%2F*"},
		{0, nullptr, nullptr, "WebAction/URI/index"},
		{1, "/index.php/user/7?x=1", "/srv/a.php", "WebAction/URI/index.php"},
		{1, "/INDEX.PhP?x=.php", nullptr, "WebAction/URI/INDEX.PhP"},
		{1, "/rest/items", "/var/www/app.php", "WebAction/PHP/var%2Fwww%2Fapp.php"},
		{1, "/rest/items?q=1", nullptr, "WebAction/URI/rest%2Fitems?q=1"},
		{1, "/rest/items?q=1", "", "WebAction/URI/rest%2Fitems?q=1"},
		{1, ".php", nullptr, "WebAction/URI/.php"},
	};
	for (const auto &c : cases) {
		ZQG(auto_action_naming) = c.automatic;
		set_script(c.script);
		EXPECT_EQ(named(c.uri), c.name) << c.automatic;
		EXPECT_EQ(ZQG(action_name_level), ZQ_NAME_URI);
	}
}

TEST_F(Naming, AppendsCapturedParameters)
{
	set(TRACK_VARS_GET, "page", "3");
	set(TRACK_VARS_GET, "sort", "asc");
	set(TRACK_VARS_GET, "quote", "a\"\xc3\xa9\xff" "cut");
	set(TRACK_VARS_GET, "empty", "");
	add_assoc_long(array(TRACK_VARS_GET), "number", -7);
	add_assoc_double(array(TRACK_VARS_GET), "float", 1.5);
	set(TRACK_VARS_POST, "id", "9");
	set(TRACK_VARS_SERVER, "HTTP_X_TENANT", "acme");
	const struct { const char *config, *suffix; } cases[] = {
		{"/list.php,page sort", "?page=3&sort=asc"},
		{"/list.php,sort&absent[page],id,X-Tenant x_tenant", "?sort=asc&page=3&id=9&X-Tenant=acme&x_tenant=acme"},
		{"/list.php,,id", "(null)"}, /* an empty group is none: "id" is looked for in the query */
		{"/list.php,quote empty number float", "?quote=a\\\"\\u00e9&empty=&number=-7&float="},
		{"/a|/list.php|/list.php,page|/list.php,sort", "?page=3"},
		{"/list.php", "(null)"},
		{"/list.php,", "(null)"},
		{"/LIST.php,page", "(null)"},
		{"/list.phpx,page", "(null)"},
		{"page,/list.php", "(null)"},
		{"", "(null)"},
		{"|||,,,", "(null)"},
	};
	for (const auto &c : cases) {
		EXPECT_EQ(suffix("/list.php", c.config), c.suffix) << c.config;
	}
	EXPECT_EQ(suffix(std::string(5000, 'x'), "/list.php,page"), "(null)");

	char captured[] = "/list.php,page sort|/none.php,absent";
	ZQG(web_action_uri_params_captured) = captured;
	EXPECT_EQ(named("/list.php?page=3&sort=asc"), "WebAction/URI/list.php?page=3&sort=asc");
	EXPECT_EQ(named("/none.php?page=3"), "WebAction/URI/none.php");
}

TEST_F(Naming, LetsARuleNameTheRequestForGood)
{
	char rules[] = R"([{"name":"Shop","match":{"method":1,"match":2,"value":"/shop"},)"
				   R"("split":{"uri":"1","urlParams":"page","headerParams":"X-Tenant","bodyParams":"list"}}])";
	ZQG(naming_rules) = rules;
	set(TRACK_VARS_GET, "page", "12");
	set(TRACK_VARS_SERVER, "HTTP_X_TENANT", "");
	zval *list;
	MAKE_STD_ZVAL(list);
	array_init(list);
	add_assoc_zval(array(TRACK_VARS_POST), "list", list);
	SG(request_info).request_method = "GET";
	EXPECT_EQ(named("/shop/77"), "WebAction/Shop/shop?page=12");
	EXPECT_EQ(ZQG(action_name_level), ZQ_NAME_FROZEN);
	EXPECT_EQ(named("/cart/77"), "WebAction/URI/cart%2F*");
	EXPECT_EQ(ZQG(action_name_level), ZQ_NAME_URI);
	char broken[] = "[{";
	ZQG(naming_rules) = broken;
	EXPECT_EQ(named("/shop/77"), "WebAction/URI/shop%2F*");
}
