/* The one lock of the process, around what threads share: application records and environment facts. Beside it, since
 * the lock has to follow forks anyway, a count of these.
 *
 * The engine's time limit leaves by longjmp out of a signal handler, so its signals wait while the lock is held or
 * while libc's own locks (streams, heap) may be. Never hold it across send, recv, engine allocation, PHP calls or
 * logging. */
#ifndef ZQP_LOCK_H
#define ZQP_LOCK_H

#include <signal.h>

/* Prepares the lock for forks; module start-up, before any thread. Harmless when called again. */
void zq_lock_init(void);

/* A number that no two processes related by fork() share, so that a child can tell what it inherited from what it has
 * opened. No system call: forks are counted as they happen, which knows every child that runs PHP, since the engine and
 * its servers make them with fork() alone. */
unsigned zq_process_number(void);
/* Runs in a child right after a fork; null: nothing does. Set at module start-up. */
extern void (*zq_when_forked)(void);

/* Holds back SIGPROF and SIGALRM in this thread; `saved` receives the mask for zq_allow_timers(). */
void zq_hold_timers(sigset_t *saved);
void zq_allow_timers(const sigset_t *saved);

/* Takes the process lock with timers held; `saved` goes to zq_unlock() unchanged. */
void zq_lock(sigset_t *saved);
void zq_unlock(const sigset_t *saved);

#endif
