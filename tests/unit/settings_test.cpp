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

/* What an answer gives for a row, unlike what it gives for any other. */
static std::string given_value(size_t i)
{
	const zq_setting_kind kind = zq_setting_table[i].kind;
	return kind == ZQ_SETTING_SQL_MODE ? "obfuscated" : kind == ZQ_SETTING_FRACTION ? "0.5" : std::to_string(100 + i);
}

TEST_F(Settings, OfOneAnswerAreAllTakenAndEachByItself)
{
	zq_config_answer answer;
	for (size_t alone = 0; alone <= zq_setting_table.size(); alone++) { /* the last round: all together */
		const auto gives = [alone](size_t i) { return i == alone || alone == zq_setting_table.size(); };
		std::string records;
		for (size_t i = 0; i < zq_setting_table.size(); i++) {
			const std::string body = std::string(zq_setting_table[i].key) + "=" + given_value(i);
			records += gives(i) ? std::string("\x0D\0\0", 3) + (char)body.size() + body : "";
		}
		app_cfg_info record = {};
		zq_parse_config_answer(&answer, records.data(), records.size(), 0);
		zq_apply_config_answer(&record, &answer, 0);
		for (size_t i = 0; i < zq_setting_table.size(); i++) {
			const zq_setting_row &row = zq_setting_table[i];
			const char *text = zq_setting_is_text(row) ? zq_setting_field<char *>(&record, row) : NULL;
			const std::string taken = zq_setting_is_text(row) ? (text ? text : "nothing")
				: row.kind == ZQ_SETTING_FRACTION ? std::to_string(zq_setting_field<double>(&record, row))
				: row.kind == ZQ_SETTING_SECONDS ? std::to_string(zq_setting_field<uint64>(&record, row))
												 : std::to_string(zq_setting_field<int>(&record, row));
			const std::string none = zq_setting_is_text(row) ? "nothing" : row.kind == ZQ_SETTING_FRACTION ? "0.000000" : "0";
			const std::string value = row.kind == ZQ_SETTING_SQL_MODE ? "2" : row.kind == ZQ_SETTING_FRACTION ? "0.500000" : given_value(i);
			EXPECT_EQ(gives(i) ? value : none, taken) << row.key;
			free(zq_setting_is_text(row) ? zq_setting_field<char *>(&record, row) : NULL);
		}
	}
}

TEST_F(Settings, OfANewConfigurationEndTheProfileOfTheOneBefore)
{
	const std::string profile("\x0D\0\0\x19zqs.profile_end_time=1234", 4 + 25);
	app_cfg_info record = {};
	for (const auto &[stamp, settings, end] : {std::tuple('1', profile, 1234u), std::tuple('2', std::string(), 0u)}) {
		const std::string answer = std::string("\x0C\0\0\x08", 4) + std::string(8, stamp) + settings;
		zq_config_answer parsed;
		zq_parse_config_answer(&parsed, answer.data(), answer.size(), record.daemon_stamp);
		zq_apply_config_answer(&record, &parsed, 0);
		EXPECT_EQ(record.profile_end_time, end);
	}
}
