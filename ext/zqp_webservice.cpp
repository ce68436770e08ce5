/* The record of one outgoing call: its name, and who frees what. */
#include "zqp_webservice.h"
#include "zqp_json.h"

webservice_element *webservice_element_alloc(
	const char *cls, const char *func, const char *uri, const char *named_params, const char *transaction_data)
{
	smart_str name = {};
	zq_append_web(&name, uri ? uri : "");
	if (named_params) {
		zq_append_char(&name, '?');
		zq_append_text(&name, named_params);
	}
	zq_append_char(&name, '/');
	const char *callee = cls ? cls : func;
	if (callee) {
		json_escape_string(&name, callee, strlen(callee), 0);
	}

	webservice_element *element = (webservice_element *)zq_list_new(sizeof(webservice_element));
	*element = {};
	element->name = zq_buffer_text(&name);
	element->transaction_data = transaction_data ? estrdup(transaction_data) : NULL;
	return element;
}

void webservice_element_dtor(void *ele)
{
	webservice_element *element = (webservice_element *)ele;
	char **texts[] = {&element->name, &element->transaction_data, &element->url, &element->error_msg, &element->stack};
	for (char **text : texts) {
		zq_replace_text(text, NULL);
	}
}
