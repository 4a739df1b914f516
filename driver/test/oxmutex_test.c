// SPDX-License-Identifier: GPL-2.0
/*
 * Unit tests of the recursive, owner-checked mutex.
 *
 * Locks that a second task uses are static: a failed check returns early,
 * and that task must never be left pointing into a dead stack frame.
 */
#include <linux/sched.h>

#include "core/oxlock.h"
#include "trak_test.h"

static void trak_test_lock_then_unlock(void *lock)
{
	oxmutex_lock(lock);
	oxmutex_unlock(lock);
}

static void trak_test_unlock(void *lock)
{
	oxmutex_unlock(lock);
}

static bool trak_test_oxmutex_free(struct oxmutex *m)
{
	if (m->depth || m->owner || down_trylock(&m->sem))
		return false;
	up(&m->sem);
	return true;
}

/* Taken three times, it must be released three times before another task gets it. */
static int trak_test_oxmutex_recursion(void)
{
	struct trak_test_task other;
	static struct oxmutex m;

	oxmutex_init(&m);
	oxmutex_lock(&m);
	oxmutex_lock(&m);
	oxmutex_lock(&m);
	if (!TRAK_CHECK(m.depth == 3 && m.owner == current))
		return -EINVAL;

	if (!TRAK_CHECK(!trak_test_task_start(&other, trak_test_lock_then_unlock,
						  &m)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_blocked(&other)))
		return -EINVAL;
	oxmutex_unlock(&m);
	oxmutex_unlock(&m);
	if (!TRAK_CHECK(m.depth == 1 && m.owner == current))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_blocked(&other)))
		return -EINVAL;
	oxmutex_unlock(&m);
	if (!TRAK_CHECK(trak_test_task_finished(&other)))
		return -EINVAL;
	trak_test_task_stop(&other);

	if (!TRAK_CHECK(trak_test_oxmutex_free(&m)))
		return -EINVAL;
	return 0;
}

/* Unlocking a free mutex is refused with a message and leaves it free. */
static int trak_test_oxmutex_unlock_free(void)
{
	static struct oxmutex m;

	oxmutex_init(&m);
	oxmutex_unlock(&m);
	if (!TRAK_CHECK(trak_test_oxmutex_free(&m)))
		return -EINVAL;

	oxmutex_lock(&m);
	if (!TRAK_CHECK(m.depth == 1 && m.owner == current))
		return -EINVAL;
	oxmutex_unlock(&m);
	if (!TRAK_CHECK(trak_test_oxmutex_free(&m)))
		return -EINVAL;
	return 0;
}

/* Another task cannot release a mutex it does not hold. */
static int trak_test_oxmutex_unlock_by_other(void)
{
	struct trak_test_task other;
	static struct oxmutex m;

	oxmutex_init(&m);
	oxmutex_lock(&m);
	if (!TRAK_CHECK(!trak_test_task_start(&other, trak_test_unlock, &m)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_finished(&other)))
		return -EINVAL;
	trak_test_task_stop(&other);
	if (!TRAK_CHECK(m.depth == 1 && m.owner == current))
		return -EINVAL;

	oxmutex_unlock(&m);
	if (!TRAK_CHECK(trak_test_oxmutex_free(&m)))
		return -EINVAL;
	return 0;
}

const struct trak_test_case trak_oxmutex_tests[] = {
	{ "oxmutex_recursion", trak_test_oxmutex_recursion },
	{ "oxmutex_unlock_free", trak_test_oxmutex_unlock_free },
	{ "oxmutex_unlock_by_other", trak_test_oxmutex_unlock_by_other },
	{ }
};
