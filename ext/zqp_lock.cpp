/* The process lock: a plain mutex, taken with the engine's time-limit signals held back. */
#include "zqp_lock.h"

#include <pthread.h>
#include <unistd.h>

static pthread_mutex_t process_lock = PTHREAD_MUTEX_INITIALIZER;
static int fork_handlers_registered; /* once per process: the library stays mapped across module restarts */
void (*zq_when_forked)(void);
static unsigned forks; /* between the process that loaded the library and this one */

static void before_fork(void)
{
	pthread_mutex_lock(&process_lock);
}
static void after_fork_in_parent(void)
{
	pthread_mutex_unlock(&process_lock);
}
static void after_fork_in_child(void)
{
	forks++; /* the child's only thread */
	pthread_mutex_unlock(&process_lock);
	if (zq_when_forked) {
		zq_when_forked();
	}
}

void zq_lock_init(void)
{
	/* A script may fork while another thread holds the lock; the child would wait for that thread for ever. */
	if (!fork_handlers_registered) {
		fork_handlers_registered = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
	}
}

unsigned zq_process_number(void)
{
	return fork_handlers_registered ? forks : (unsigned)getpid();
}

void zq_hold_timers(sigset_t *saved)
{
	sigset_t timers;
	sigemptyset(&timers);
	sigaddset(&timers, SIGPROF);
	sigaddset(&timers, SIGALRM);
	pthread_sigmask(SIG_BLOCK, &timers, saved);
}

void zq_allow_timers(const sigset_t *saved)
{
	pthread_sigmask(SIG_SETMASK, saved, NULL);
}

void zq_lock(sigset_t *saved)
{
	zq_hold_timers(saved);
	pthread_mutex_lock(&process_lock);
}

void zq_unlock(const sigset_t *saved)
{
	pthread_mutex_unlock(&process_lock);
	zq_allow_timers(saved);
}
