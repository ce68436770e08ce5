#include "engine_fixture.h"
#include "zqp_io.h"

class Settings : public EngineTest {};

/* A running request follows ini_set() of the trace settings; only a command-line run may name its application. */
TEST_F(Settings, FollowTheScript)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	const struct { const char *setting; int *field; } rows[] = {
		{"enabled", &g->action_tracer_enabled}, {"action_threshold", &g->action_tracer_action_threshold},
		{"slow_sql", &g->action_tracer_slow_sql}, {"slow_sql_threshold", &g->action_tracer_slow_sql_threshold},
		{"explain_enabled", &g->action_tracer_explain_enabled}, {"explain_threshold", &g->action_tracer_explain_threshold},
	};
	int number = 30;
	for (const auto &row : rows) {
		run("ini_set('zqs.action_tracer." + std::string(row.setting) + "', '" + std::to_string(number++) + " ms');");
	}
	number = 30;
	for (const auto &row : rows) {
		EXPECT_EQ(*row.field, number++) << row.setting; /* each its own field, the text's leading number */
	}
	run("ini_set('zqs.action_tracer.enabled', 'TRUE'); ini_set('zqs.action_tracer.slow_sql', 'on');");
	EXPECT_EQ(g->action_tracer_enabled, 1);
	EXPECT_EQ(g->action_tracer_slow_sql, 0);
	const int was_cli = g_cli;
	for (const auto &[cli, name] : {std::pair(1, "cron"), std::pair(0, "web")}) {
		g_cli = cli;
		run("ini_set('zqs.app_name', '" + std::string(name) + "');");
		EXPECT_STREQ(g->app_name, "cron");
	}
	g_cli = was_cli;
}

/* The name can come from the client's Host header. */
TEST_F(Settings, OfApplicationsWithoutNumberTakeNoMemoryWithoutBound)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zq_app_config_final();
	zq_app_config_init();
	const auto record_of = [&](const std::string &name) {
		g->app_name = estrdup(name.c_str());
		app_cfg_info *record = get_app_info(TSRMLS_C);
		efree(g->app_name);
		g->app_name = NULL;
		return record;
	};
	app_cfg_info *first = record_of("app0");
	for (int i = 1; i < 1100; i++) {
		ASSERT_EQ(record_of("app" + std::to_string(i)) != NULL, i < 1024) << i;
	}
	EXPECT_EQ(record_of("app0"), first);
}
