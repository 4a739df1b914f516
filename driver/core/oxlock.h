/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_CORE_OXLOCK_H
#define TRAK_CORE_OXLOCK_H

#include <linux/lockdep.h>
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
 *
 * @dep_map shows each lock to lockdep, like a mutex or an rwsem, so that a
 * kernel built with lockdep checks the order in which they are taken
 * (registry, then a node's lock, then its io_lock or bmp_lock) and that
 * none is taken in atomic context.  Only the outermost acquire and the
 * last release are annotated: lockdep knows nothing of owner recursion.
 * Each place that initialises locks is its own lock class, named after
 * the expression it initialises ("&dev->lock").  Readers are annotated as
 * recursive: a reader never waits for a waiting writer, so a task may hold
 * several read locks of one class, or the same one twice.
 */
struct oxmutex {
	struct semaphore sem;
	struct task_struct *owner;
	int depth;
	spinlock_t guard;
#ifdef CONFIG_DEBUG_LOCK_ALLOC
	struct lockdep_map dep_map;
#endif
};

struct oxrwlock {
	wait_queue_head_t wait;
	struct task_struct *owner;
	int count;
	spinlock_t guard;
#ifdef CONFIG_DEBUG_LOCK_ALLOC
	struct lockdep_map dep_map;
#endif
};

void trak_oxmutex_init(struct oxmutex *m, const char *name,
		       struct lock_class_key *key);
void trak_oxrwlock_init(struct oxrwlock *l, const char *name,
			struct lock_class_key *key);

#define oxmutex_init(m)							\
	do {								\
		static struct lock_class_key __key;			\
									\
		trak_oxmutex_init((m), #m, &__key);			\
	} while (0)

#define oxrwlock_init(l)						\
	do {								\
		static struct lock_class_key __key;			\
									\
		trak_oxrwlock_init((l), #l, &__key);			\
	} while (0)

void oxmutex_lock(struct oxmutex *m);
void oxmutex_unlock(struct oxmutex *m);

void oxread_lock(struct oxrwlock *l);
void oxread_unlock(struct oxrwlock *l);
void oxwrite_lock(struct oxrwlock *l);
int oxwrite_lock_timeout(struct oxrwlock *l, unsigned long timeout);
void oxwrite_unlock(struct oxrwlock *l);

/*
 * A read lock that one task takes and another releases must be handed
 * over for lockdep, which otherwise sees the first task keep a lock it no
 * longer uses and the second release one it never took (as
 * percpu_rwsem_release() and percpu_rwsem_acquire() do for a frozen file
 * system).  The lock itself does not change.
 */
static inline void trak_oxread_hand_off(struct oxrwlock *l)
{
	lock_release(&l->dep_map, _RET_IP_);
}

static inline void trak_oxread_take_over(struct oxrwlock *l)
{
	lock_acquire_shared_recursive(&l->dep_map, 0, 1, NULL, _RET_IP_);
}

#endif
