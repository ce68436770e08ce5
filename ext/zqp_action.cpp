/* What an action keeps, made and freed in one place. Which fields own something is said by three tables: a new list,
 * hash table or text of zq_action is a row. */
#include "zqp_action.h"

#include "zqp_component.h"
#include "zqp_details.h"
#include "zqp_exception.h"
#include "zqp_nosql.h"
#include "zqp_open_calls.h"
#include "zqp_process_memory.h"
#include "zqp_trace_context.h"
#include "zqp_tracer.h"
#include "zqp_webservice.h"
#include "zqp_wrapper.h"
#include "zqprof_settings.h"

/* The shortest call that enters a trace, however low the action threshold is. */
#ifndef ZQ_TRACER_FLOOR_US
#define ZQ_TRACER_FLOOR_US 1000
#endif

static zend_llist *zq_action::*const lists[] = {
	&zq_action::tracer, /* first: it points into the others */
	&zq_action::sqls,
	&zq_action::components,
	&zq_action::webservices,
};
static HashTable *zq_action::*const tables[] = {
	&zq_action::components_hash,
	&zq_action::nosql_memcc,
	&zq_action::nosql_redis,
	&zq_action::nosql_mongo,
};
static char *zq_action::*const texts[] = {
	&zq_action::action_name,
	&zq_action::tracer_id,
	&zq_action::prepared_sql,
	&zq_action::thrift_host,
	&zq_action::thrift_tx_data,
	&zq_action::transaction_id,
	&zq_action::transaction_curl_response_data,
	&zq_action::transaction_req_id,
};

static void make_table(HashTable **table, uint size, dtor_func_t dtor)
{
	if (!*table) {
		*table = (HashTable *)emalloc(sizeof(HashTable));
		zend_hash_init(*table, size, NULL, dtor, 0);
	}
}

static void make_list(zend_llist **list, size_t element_size, void (*dtor)(void *))
{
	if (!*list) {
		*list = (zend_llist *)emalloc(sizeof(zend_llist));
		zend_llist_init(*list, element_size, dtor, 0);
	}
}

void zq_create_containers(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (!g->performance_function_hash) {
		make_table(&g->wrapper_function_hash, 32, NULL);
		make_table(&g->performance_function_hash, 16, NULL);
		zq_init_funtion_hash(TSRMLS_C);
	}
	make_list(&g->sqls, sizeof(sql_element), sql_element_dtor);
	make_list(&g->tracer, sizeof(tracer_element), tracer_element_dtor);
	make_list(&g->components, sizeof(component_element), component_element_dtor);
	make_list(&g->webservices, sizeof(webservice_element), webservice_element_dtor);
	make_table(&g->components_hash, 64, component_hash_element_dtor);
	make_table(&g->nosql_memcc, 16, nosql_hash_element_dtor);
	make_table(&g->nosql_redis, 16, nosql_hash_element_dtor);
	make_table(&g->nosql_mongo, 16, nosql_hash_element_dtor);
}

static void free_table(HashTable *table)
{
	if (table) {
		zend_hash_destroy(table);
		efree(table);
	}
}

/* Frees what is the process's, and leaves the rest as when the thread appeared, but for `pdo_db`, which is empty before
 * the first connection. */
static void forget_action(zend_zqprof_globals *g)
{
	error_element_dtor(g->error);
	zq_forget_ended_calls(g);
	static_cast<zq_action &>(*g) = {};
	g->pdo_db = "";
	g->component_generation++;
}

void zq_empty_containers(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	for (auto list : lists) {
		if (g->*list) {
			zend_llist_clean(g->*list);
		}
	}
	for (auto table : tables) {
		if (g->*table) {
			zend_hash_clean(g->*table);
		}
	}
	zq_forget_ended_calls(g);
	g->component_generation++;
	g->recorded_sql_bytes = g->recorded_webservice_bytes = 0;
	g->recorded_limit_logged = g->unlisted_webservice_ms = 0;
}

void zq_release_action(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	for (auto list : lists) {
		if (g->*list) {
			zend_llist_destroy(g->*list);
			efree(g->*list);
		}
	}
	for (auto table : tables) {
		free_table(g->*table);
	}
	for (auto text : texts) {
		zq_replace_text(&(g->*text), NULL);
	}
	zq_trace_context_end(TSRMLS_C);
	zq_details_end(TSRMLS_C);
	forget_action(g);
}

void zq_free_config_copies(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	for (const auto &row : zq_setting_table) {
		if (zq_setting_is_text(row)) {
			zq_replace_text(&zq_setting_field<char *>(g, row), NULL);
		}
	}
}

void zq_release_request(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zq_release_action(TSRMLS_C);
	free_table(g->wrapper_function_hash);
	free_table(g->performance_function_hash);
	free_table(g->curl_handles);
	zq_replace_text(&g->request_path, NULL);
	zq_replace_text(&g->app_name, NULL);
	zq_free_config_copies(TSRMLS_C);
	static_cast<zq_request &>(*g) = {};
}

void zq_forget_request(zend_zqprof_globals *g)
{
	forget_action(g);
	static_cast<zq_request &>(*g) = {};
}

void zq_set_license(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	const char *key = zq_ini_str("zqs.license_key", NULL);
	if (!key) {
		g->license = "empty key";
		return;
	}
	/* The setting's own text may be freed at request end, while phpinfo of the next request still shows the key. */
	if (!g->license_copy || strcmp(g->license_copy, key) != 0) {
		free(g->license_copy);
		g->license_copy = zq_strdup(key);
	}
	g->license = g->license_copy ? g->license_copy : "empty key";
}

uint64 zq_tracer_threshold_us(int action_threshold_ms)
{
	int64_t hundredth_us = (int64_t)action_threshold_ms * 10;
	return (uint64)(hundredth_us < ZQ_TRACER_FLOOR_US ? ZQ_TRACER_FLOOR_US : hundredth_us);
}
