/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_CORE_OXLOCK_H
#define TRAK_CORE_OXLOCK_H

#include <linux/semaphore.h>
#include <linux/spinlock.h>
#include <linux/wait.h>

struct task_struct;

/*
 * Owner-checked locks.  Both remember the task that holds them, may be
 * taken again by that task, and refuse, with a log line, to be released by
 * anyone else.  Both sleep: never use them in interrupt context.
 *
 * oxmutex: a recursive mutex.
 * oxrwlock: a reader/writer lock whose writer may recurse.  count > 0 is
 * the number of readers, 0 free, < 0 a writer holding it -count times.  A
 * writer asking for a read lock waits for itself: no path may do that.
 *
 * @guard protects owner, depth and count and makes test-and-sleep atomic.
 */
struct oxmutex {
	struct semaphore sem;
	struct task_struct *owner;
	int depth;
	spinlock_t guard;
};

struct oxrwlock {
	wait_queue_head_t wait;
	struct task_struct *owner;
	int count;
	spinlock_t guard;
};

void oxmutex_init(struct oxmutex *m);
void oxmutex_lock(struct oxmutex *m);
void oxmutex_unlock(struct oxmutex *m);

void oxrwlock_init(struct oxrwlock *l);
void oxread_lock(struct oxrwlock *l);
void oxread_unlock(struct oxrwlock *l);
void oxwrite_lock(struct oxrwlock *l);
void oxwrite_unlock(struct oxrwlock *l);

#endif
