/* The board's mapping, which the threads of a process share. */
#ifndef ZQP_BOARD_FILE_H
#define ZQP_BOARD_FILE_H

#include <signal.h>
#include <sys/types.h>

#include "zqp_board_layout.h"
#include "zqp_helper.h"

enum { ZQ_BOARD_MAPPINGS = 4 };

/* A board that was mapped. Its numbers are behind the process lock; while a thread has a slot in it, it stays. */
struct zq_board_mapping {
	char *at; /* null: this place is free */
	size_t size;
	int users; /* threads with a slot in it */
	ino_t inode;
	int64_t checked_s;             /* when it was last seen in its place */
	volatile sig_atomic_t is_lost; /* it has been cut short, or is not in its place any more */
};
/* The present board, and those before it that some threads still write on. */
extern zq_board_mapping zq_board_mappings[ZQ_BOARD_MAPPINGS];

/* The board to write on, for one thread more; null: there is none. Looks for one, at most once a second, when none is
 * mapped or the one that is has become useless. `now_s` is any clock's that goes on. zq_board_stop_using() ends it. */
zq_board_mapping *zq_board_use(int64_t now_s);
void zq_board_stop_using(zq_board_mapping *board);
/* In a child that has just been forked: the threads that used it are its parent's. */
void zq_board_use_none(void);

/* Whether a mapped board is one still, and the daemon has not closed it. Looks once a second whether the file is still
 * in its place. */
bool zq_board_is_good(zq_board_mapping *board, int64_t now_s);
/* Whether boards may be touched: a host that has put its own handler of SIGBUS in the place of ours must not meet
 * faults of our making. */
bool zq_board_is_safe(void);
/* When this process started, as field 22 of /proc/PID/stat; 0: that could not be read. After zq_board_use(). */
uint64 zq_board_process_start(void);

/* The first fault that a process meets is noted, from under the lock as well, and logged once it is told. */
__attribute__((format(printf, 1, 2))) void zq_board_note(const char *format, ...);
void zq_board_tell(void);

#endif
