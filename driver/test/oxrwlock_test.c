// SPDX-License-Identifier: GPL-2.0
/*
 * Unit tests of the reader/writer lock with a recursive, owner-checked writer.
 *
 * Locks that a second task uses are static: a failed check returns early,
 * and that task must never be left pointing into a dead stack frame.
 */
#include <linux/jiffies.h>
#include <linux/sched.h>

#include "core/oxlock.h"
#include "trak_test.h"

static void trak_test_read_cycle(void *lock)
{
	oxread_lock(lock);
	oxread_unlock(lock);
}

static void trak_test_write_cycle(void *lock)
{
	oxwrite_lock(lock);
	oxwrite_unlock(lock);
}

static void trak_test_timed_write_cycle(void *lock)
{
	if (!oxwrite_lock_timeout(lock, MAX_SCHEDULE_TIMEOUT))
		oxwrite_unlock(lock);
}

static void trak_test_write_unlock(void *lock)
{
	oxwrite_unlock(lock);
}

/* Takes a read lock and leaves it for the test's own task to release. */
static void trak_test_read_lock_for_other(void *lock)
{
	oxread_lock(lock);
	trak_oxread_hand_off(lock);
}

/* Releasing a read lock nobody holds is refused and changes nothing. */
static int trak_test_oxread_unlock_unheld(void)
{
	static struct oxrwlock l;

	oxrwlock_init(&l);
	oxread_unlock(&l);
	if (!TRAK_CHECK(l.count == 0 && !l.owner))
		return -EINVAL;

	oxwrite_lock(&l);
	oxread_unlock(&l);
	if (!TRAK_CHECK(l.count == -1 && l.owner == current))
		return -EINVAL;
	oxwrite_unlock(&l);
	if (!TRAK_CHECK(l.count == 0 && !l.owner))
		return -EINVAL;
	return 0;
}

/* Readers share the lock; a writer waits until the last one has left. */
static int trak_test_oxrwlock_readers_share(void)
{
	struct trak_test_task reader, writer;
	static struct oxrwlock l;

	oxrwlock_init(&l);
	oxread_lock(&l);
	oxread_lock(&l);
	if (!TRAK_CHECK(l.count == 2))
		return -EINVAL;

	if (!TRAK_CHECK(!trak_test_task_start(&reader,
						  trak_test_read_lock_for_other, &l)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_finished(&reader)))
		return -EINVAL;
	trak_test_task_stop(&reader);
	if (!TRAK_CHECK(l.count == 3))
		return -EINVAL;
	trak_oxread_take_over(&l);
	oxread_unlock(&l);	/* on behalf of the reader task */

	if (!TRAK_CHECK(!trak_test_task_start(&writer, trak_test_write_cycle, &l)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_blocked(&writer)))
		return -EINVAL;
	oxread_unlock(&l);
	if (!TRAK_CHECK(trak_test_task_blocked(&writer)))
		return -EINVAL;
	oxread_unlock(&l);
	if (!TRAK_CHECK(trak_test_task_finished(&writer)))
		return -EINVAL;
	trak_test_task_stop(&writer);
	if (!TRAK_CHECK(l.count == 0 && !l.owner))
		return -EINVAL;
	return 0;
}

/* A writer taking the lock twice leaves -2; two releases free it and wake waiters. */
static int trak_test_oxwrite_recursion(void)
{
	struct trak_test_task reader, writer;
	static struct oxrwlock l;

	oxrwlock_init(&l);
	oxwrite_lock(&l);
	oxwrite_lock(&l);
	if (!TRAK_CHECK(l.count == -2 && l.owner == current))
		return -EINVAL;

	if (!TRAK_CHECK(!trak_test_task_start(&reader, trak_test_read_cycle, &l)))
		return -EINVAL;
	if (!TRAK_CHECK(!trak_test_task_start(&writer, trak_test_write_cycle, &l)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_blocked(&reader)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_blocked(&writer)))
		return -EINVAL;

	oxwrite_unlock(&l);
	if (!TRAK_CHECK(l.count == -1 && l.owner == current))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_blocked(&reader)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_blocked(&writer)))
		return -EINVAL;

	oxwrite_unlock(&l);
	if (!TRAK_CHECK(trak_test_task_finished(&reader)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_finished(&writer)))
		return -EINVAL;
	trak_test_task_stop(&reader);
	trak_test_task_stop(&writer);
	if (!TRAK_CHECK(l.count == 0 && !l.owner))
		return -EINVAL;
	return 0;
}

/* Only the writing task can release the write lock. */
static int trak_test_oxwrite_unlock_by_other(void)
{
	struct trak_test_task other;
	static struct oxrwlock l;

	oxrwlock_init(&l);
	oxwrite_unlock(&l);
	if (!TRAK_CHECK(l.count == 0 && !l.owner))
		return -EINVAL;

	oxwrite_lock(&l);
	if (!TRAK_CHECK(!trak_test_task_start(&other, trak_test_write_unlock, &l)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_finished(&other)))
		return -EINVAL;
	trak_test_task_stop(&other);
	if (!TRAK_CHECK(l.count == -1 && l.owner == current))
		return -EINVAL;

	oxwrite_unlock(&l);
	if (!TRAK_CHECK(l.count == 0 && !l.owner))
		return -EINVAL;
	return 0;
}

/*
 * A timed writer gives up while a reader stays, leaving the lock as it
 * was; it takes a free lock, recursively too, and one waiting without a
 * limit takes it as soon as it is released.
 */
static int trak_test_oxwrite_lock_timeout(void)
{
	struct trak_test_task reader, writer;
	static struct oxrwlock l;

	oxrwlock_init(&l);
	if (!TRAK_CHECK(!trak_test_task_start(&reader,
						  trak_test_read_lock_for_other, &l)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_finished(&reader)))
		return -EINVAL;
	trak_test_task_stop(&reader);
	if (!TRAK_CHECK(oxwrite_lock_timeout(&l, msecs_to_jiffies(50)) == -ETIMEDOUT))
		return -EINVAL;
	if (!TRAK_CHECK(l.count == 1 && !l.owner))
		return -EINVAL;
	trak_oxread_take_over(&l);
	oxread_unlock(&l);	/* on behalf of the reader task */

	if (!TRAK_CHECK(!oxwrite_lock_timeout(&l, 0)))
		return -EINVAL;
	if (!TRAK_CHECK(!oxwrite_lock_timeout(&l, 0)))
		return -EINVAL;
	if (!TRAK_CHECK(l.count == -2 && l.owner == current))
		return -EINVAL;
	oxwrite_unlock(&l);

	if (!TRAK_CHECK(!trak_test_task_start(&writer,
						  trak_test_timed_write_cycle, &l)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_blocked(&writer)))
		return -EINVAL;
	oxwrite_unlock(&l);
	if (!TRAK_CHECK(trak_test_task_finished(&writer)))
		return -EINVAL;
	trak_test_task_stop(&writer);
	if (!TRAK_CHECK(l.count == 0 && !l.owner))
		return -EINVAL;
	return 0;
}

const struct trak_test_case trak_oxrwlock_tests[] = {
	{ "oxread_unlock_unheld", trak_test_oxread_unlock_unheld },
	{ "oxrwlock_readers_share", trak_test_oxrwlock_readers_share },
	{ "oxwrite_recursion", trak_test_oxwrite_recursion },
	{ "oxwrite_unlock_by_other", trak_test_oxwrite_unlock_by_other },
	{ "oxwrite_lock_timeout", trak_test_oxwrite_lock_timeout },
	{ }
};
