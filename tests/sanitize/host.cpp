/* A web server without the web, for ThreadSanitizer: threads of one process, each with an embedded engine, serve requests
 * for one script as fast as they can. An application's name, its page and its caller change from request to request.
 *
 * The extension's monotonic clock runs sixty times as fast here, so that what is due each minute is due each second. With
 * the word "unlocked" the extension's lock does nothing, which must be seen.
 *
 * host ROOT SCRIPT THREADS SECONDS [unlocked]; prints how many requests it served. */
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstring>
#include <pthread.h>
#include <string>
#include <thread>
#include <time.h>
#include <vector>

#include "zqp_helper.h"

extern "C" {
#include "sapi/embed/php_embed.h"
zend_module_entry *get_module(void);
extern zend_module_entry doubles_module_entry;

/* What the extension's references are linked with (--wrap); the linker wants them visible to the engine's library too. */
#pragma GCC visibility push(default)
int __real_clock_gettime(clockid_t clock, struct timespec *now);
int __wrap_clock_gettime(clockid_t clock, struct timespec *now);
int __real_pthread_mutex_lock(pthread_mutex_t *lock);
int __wrap_pthread_mutex_lock(pthread_mutex_t *lock);
int __real_pthread_mutex_unlock(pthread_mutex_t *lock);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *lock);
#pragma GCC visibility pop
}

namespace {

constexpr long CLOCK_RATE = 60;
constexpr long NS_PER_S = 1000000000;

bool locking = true;
std::string script;
std::atomic<bool> stopping;
std::atomic<long> requests, bytes_sent;

int count_output(const char *, unsigned int len TSRMLS_DC)
{
	bytes_sent += len;
	return (int)len;
}

void register_variables(zval *server TSRMLS_DC)
{
	long number = (long)SG(server_context);
	std::string name = std::string("shop") + (char)('a' + number % 8);
	std::string caller = "acme|" + std::to_string(number % 5) + ";c=1;x=77;r=" + std::to_string(number);
	php_register_variable((char *)"SERVER_NAME", (char *)name.c_str(), server TSRMLS_CC);
	php_register_variable((char *)"SERVER_PORT", (char *)"80", server TSRMLS_CC);
	php_register_variable((char *)"REQUEST_URI", (char *)SG(request_info).request_uri, server TSRMLS_CC);
	php_register_variable((char *)"SCRIPT_NAME", (char *)SG(request_info).request_uri, server TSRMLS_CC);
	php_register_variable((char *)"SCRIPT_FILENAME", (char *)script.c_str(), server TSRMLS_CC);
	php_register_variable((char *)"HTTP_X_QUEUE_START", (char *)"t=1", server TSRMLS_CC);
	if (number % 3 == 0) {
		php_register_variable((char *)"HTTP_X_VANTOR_ID", (char *)caller.c_str(), server TSRMLS_CC);
	}
}

/* A frame of its own: a bailout must find nothing in it that wants to be destroyed. */
void execute_script(TSRMLS_D)
{
	zend_file_handle file;
	memset(&file, 0, sizeof file);
	file.type = ZEND_HANDLE_FILENAME;
	file.filename = (char *)script.c_str();
	zend_first_try {
		php_execute_script(&file TSRMLS_CC);
	} zend_end_try();
}

void serve_one(long number TSRMLS_DC)
{
	std::string page = "/page/" + std::to_string(number % 7), query = "case=" + std::to_string(number);
	SG(server_context) = (void *)number;
	SG(request_info).request_method = "GET";
	SG(request_info).request_uri = page.data();
	SG(request_info).query_string = query.data();
	SG(request_info).path_translated = script.data();
	SG(options) |= SAPI_OPTION_NO_CHDIR;
	if (php_request_startup(TSRMLS_C) == SUCCESS) {
		execute_script(TSRMLS_C);
		php_request_shutdown(nullptr);
	}
	requests++;
}

/* All begin at once: what happens once per process must bear it, too. */
void serve(int first, int step, std::barrier<> *start)
{
	void ***tsrm_ls = (void ***)ts_resource(0);
	start->arrive_and_wait();
	for (long number = first; !stopping; number += step) {
		serve_one(number TSRMLS_CC);
	}
	ts_free_thread();
}

void start_engine(const std::string &root, int threads)
{
	static std::string settings = "zqs.runtime_root=" + root + "\nzqs.prefix=" + root + "\nzqs.auto_app_naming=1\n" +
	                              "zqs.agent_log_level=debug\nmax_execution_time=0\ndate.timezone=UTC\nhtml_errors=0\n";
	static zend_module_entry modules[] = {*get_module(), doubles_module_entry};
	tsrm_startup(threads, 1, 0, nullptr);
	ts_resource(0);
	php_embed_module.ub_write = count_output;
	php_embed_module.flush = nullptr;
	php_embed_module.register_server_variables = register_variables;
	php_embed_module.php_ini_ignore = 1;
	sapi_startup(&php_embed_module); /* forgets ini_entries */
	php_embed_module.ini_entries = settings.data();
	if (php_module_startup(&php_embed_module, modules, 2) != SUCCESS) {
		abort();
	}
}

void stop_engine()
{
	TSRMLS_FETCH();
	php_module_shutdown(TSRMLS_C);
	sapi_shutdown();
	tsrm_shutdown();
}

} // namespace

int __wrap_clock_gettime(clockid_t clock, struct timespec *now)
{
	int result = __real_clock_gettime(clock, now);
	if (clock == CLOCK_MONOTONIC) {
		__int128 ns = ((__int128)now->tv_sec * NS_PER_S + now->tv_nsec) * CLOCK_RATE;
		now->tv_sec = (time_t)(ns / NS_PER_S);
		now->tv_nsec = (long)(ns % NS_PER_S);
	}
	return result;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *lock) { return locking ? __real_pthread_mutex_lock(lock) : 0; }
int __wrap_pthread_mutex_unlock(pthread_mutex_t *lock) { return locking ? __real_pthread_mutex_unlock(lock) : 0; }

int main(int argc, char **argv)
{
	if (argc < 5) {
		fprintf(stderr, "usage: %s ROOT SCRIPT THREADS SECONDS [unlocked]\n", argv[0]);
		return 2;
	}
	script = argv[2];
	int count = atoi(argv[3]);
	locking = argc < 6 || strcmp(argv[5], "unlocked") != 0;
	start_engine(argv[1], count + 1);
	std::barrier<> start(count);
	std::vector<std::thread> threads;
	for (int i = 0; i < count; i++) {
		threads.emplace_back(serve, i, count, &start);
	}
	std::this_thread::sleep_for(std::chrono::seconds(atoi(argv[4])));
	stopping = true;
	for (std::thread &thread : threads) {
		thread.join();
	}
	stop_engine();
	printf("%ld requests, %ld bytes\n", requests.load(), bytes_sent.load());
	return 0;
}
