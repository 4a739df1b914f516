// SPDX-License-Identifier: GPL-2.0
/*
 * Owner-checked locks: a recursive mutex and a reader/writer lock with a
 * recursive writer.  Misuse (releasing a lock one does not hold) is logged
 * and otherwise ignored; the lock is left exactly as it was.
 */
#include <linux/sched.h>
#include <linux/wait.h>

#include "log.h"
#include "oxlock.h"

void trak_oxmutex_init(struct oxmutex *m, const char *name,
		       struct lock_class_key *key)
{
	sema_init(&m->sem, 1);
	m->owner = NULL;
	m->depth = 0;
	spin_lock_init(&m->guard);
	lockdep_init_map(&m->dep_map, name, key, 0);
}

/*
 * Every acquire may sleep, the recursive one included, so that a caller in
 * atomic context is caught on its first call, not only when it contends.
 * Lockdep hears of the outermost acquire before the task sleeps for it,
 * so that a deadlock is reported instead of hanging silently.
 */
void oxmutex_lock(struct oxmutex *m)
{
	might_sleep();
	spin_lock(&m->guard);
	if (m->depth && m->owner == current) {
		m->depth++;
		spin_unlock(&m->guard);
		return;
	}
	spin_unlock(&m->guard);

	mutex_acquire(&m->dep_map, 0, 0, _RET_IP_);
	down(&m->sem);

	spin_lock(&m->guard);
	m->owner = current;
	m->depth = 1;
	spin_unlock(&m->guard);
}

void oxmutex_unlock(struct oxmutex *m)
{
	bool release = false;

	spin_lock(&m->guard);
	if (!m->depth || m->owner != current) {
		spin_unlock(&m->guard);
		trak_log(TRAK_LOG_ERR, "%s(): Can't unlock mutex: not owner.",
			 __func__);
		return;
	}
	if (--m->depth == 0) {
		m->owner = NULL;
		release = true;
	}
	spin_unlock(&m->guard);

	if (release) {
		mutex_release(&m->dep_map, _RET_IP_);
		up(&m->sem);
	}
}

void trak_oxrwlock_init(struct oxrwlock *l, const char *name,
			struct lock_class_key *key)
{
	init_waitqueue_head(&l->wait);
	l->owner = NULL;
	l->count = 0;
	spin_lock_init(&l->guard);
	lockdep_init_map(&l->dep_map, name, key, 0);
}

/*
 * Sleeps uninterruptibly until @cond holds; called and returns with the
 * guard held, which is dropped while asleep.  Every sleeper is woken on
 * release and tests the condition again itself.
 */
#define oxrwlock_wait(l, cond)						\
	wait_event_cmd((l)->wait, cond, spin_unlock(&(l)->guard),	\
		       spin_lock(&(l)->guard))

void oxread_lock(struct oxrwlock *l)
{
	might_sleep();
	lock_acquire_shared_recursive(&l->dep_map, 0, 0, NULL, _RET_IP_);
	spin_lock(&l->guard);
	oxrwlock_wait(l, l->count >= 0);
	l->count++;
	spin_unlock(&l->guard);
}

void oxread_unlock(struct oxrwlock *l)
{
	bool held, wake = false;

	spin_lock(&l->guard);
	held = l->count > 0;
	if (held)
		wake = --l->count == 0;
	spin_unlock(&l->guard);

	if (!held) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Can't release RO lock: not locked.", __func__);
		return;
	}
	lock_release(&l->dep_map, _RET_IP_);
	if (wake)
		wake_up_all(&l->wait);
}

/*
 * Takes the lock for writing, waiting at most @timeout jiffies for the
 * readers and any other writer to leave: 0 once held, -ETIMEDOUT when it
 * stayed busy that long.  With MAX_SCHEDULE_TIMEOUT it waits for good.
 */
int oxwrite_lock_timeout(struct oxrwlock *l, unsigned long timeout)
{
	might_sleep();
	spin_lock(&l->guard);
	if (l->count < 0 && l->owner == current) {
		l->count--;
		spin_unlock(&l->guard);
		return 0;
	}
	spin_unlock(&l->guard);

	/* Only this task could make it its own in between: it still is not. */
	lock_acquire_exclusive(&l->dep_map, 0, 0, NULL, _RET_IP_);
	for (;;) {
		spin_lock(&l->guard);
		if (l->count == 0) {
			l->owner = current;
			l->count--;
			spin_unlock(&l->guard);
			return 0;
		}
		spin_unlock(&l->guard);
		/* A reader may slip in between the wake-up and the guard. */
		timeout = wait_event_timeout(l->wait, READ_ONCE(l->count) == 0,
					     timeout);
		if (!timeout) {
			lock_release(&l->dep_map, _RET_IP_);
			return -ETIMEDOUT;
		}
	}
}

void oxwrite_lock(struct oxrwlock *l)
{
	oxwrite_lock_timeout(l, MAX_SCHEDULE_TIMEOUT);
}

void oxwrite_unlock(struct oxrwlock *l)
{
	bool held, wake = false;

	spin_lock(&l->guard);
	held = l->count < 0 && l->owner == current;
	if (held && ++l->count == 0) {
		l->owner = NULL;
		wake = true;
	}
	spin_unlock(&l->guard);

	if (!held) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Can't release RW lock: not owner.", __func__);
		return;
	}
	if (wake) {
		lock_release(&l->dep_map, _RET_IP_);
		wake_up_all(&l->wait);
	}
}
