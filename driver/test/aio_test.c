// SPDX-License-Identifier: GPL-2.0
/*
 * Unit tests of the request tracker: which clones overlap, how a clone's
 * completion ends its parent, and who waits for whom.  Clones are ended by
 * hand here, as the partition would end them.
 */
#include <linux/bio.h>
#include <linux/blkdev.h>

#include "snap/aio.h"
#include "test_bios.h"
#include "trak_test.h"

static struct trak_test_bios trak_test_parents;

static struct bio *trak_test_parent(int i, sector_t sector,
				    unsigned int sectors)
{
	return trak_test_bio(&trak_test_parents, i, sector, sectors,
			     REQ_OP_WRITE);
}

/* The partition ends @clone with @status. */
static void trak_test_complete(struct bio *clone, blk_status_t status)
{
	clone->bi_status = status;
	bio_endio(clone);
}

/*
 * Sectors, not blocks, decide: two requests in one 4096-byte block that
 * share no sector are both issued; one that shares a sector is refused
 * while the other is in flight, without a wait when none is asked for.
 */
static int trak_test_aio_overlap(void)
{
	static struct trak_aio aio;
	struct bio *a, *b, *c;
	int rc = 0;

	if (!TRAK_CHECK(!trak_aio_init(&aio)))
		return -EINVAL;
	a = trak_aio_clone(&aio, trak_test_parent(0, 0, 4), NULL, false,
			   GFP_KERNEL);
	b = trak_aio_clone(&aio, trak_test_parent(1, 4, 4), NULL, false,
			   GFP_KERNEL);
	c = trak_aio_clone(&aio, trak_test_parent(2, 3, 2), NULL, false,
			   GFP_KERNEL);
	if (!TRAK_CHECK(a && b) || !TRAK_CHECK(!c))
		rc = -EINVAL;
	if (c)
		trak_test_complete(c, BLK_STS_OK);
	if (a)
		trak_test_complete(a, BLK_STS_OK);
	c = trak_aio_clone(&aio, trak_test_parent(2, 0, 2), NULL, false,
			   GFP_KERNEL);
	if (!TRAK_CHECK(c))
		rc = -EINVAL;
	if (b)
		trak_test_complete(b, BLK_STS_OK);
	if (c)
		trak_test_complete(c, BLK_STS_OK);
	trak_aio_destroy(&aio);
	return rc;
}

/* A clone's end ends its parent once, with the clone's status. */
static int trak_test_aio_end_ends_parent_once(void)
{
	static struct trak_aio aio;
	struct bio *clone;
	int rc = 0;

	if (!TRAK_CHECK(!trak_aio_init(&aio)))
		return -EINVAL;
	clone = trak_aio_clone(&aio, trak_test_parent(0, 100, 8), NULL, false,
			       GFP_KERNEL);
	if (!TRAK_CHECK(clone)) {
		trak_aio_destroy(&aio);
		return -EINVAL;
	}
	if (!TRAK_CHECK(trak_test_parents.end[0].ended == 0))
		rc = -EINVAL;
	trak_test_complete(clone, BLK_STS_IOERR);
	if (!TRAK_CHECK(trak_test_parents.end[0].ended == 1) ||
	    !TRAK_CHECK(trak_test_parents.end[0].status == BLK_STS_IOERR))
		rc = -EINVAL;
	trak_aio_destroy(&aio);
	return rc;
}

/* A dropped clone leaves its range free and its parent alone. */
static int trak_test_aio_drop(void)
{
	static struct trak_aio aio;
	struct bio *clone;
	int rc = 0;

	if (!TRAK_CHECK(!trak_aio_init(&aio)))
		return -EINVAL;
	clone = trak_aio_clone(&aio, trak_test_parent(0, 0, 8), NULL, false,
			       GFP_KERNEL);
	if (clone)
		trak_aio_drop(clone);
	clone = trak_aio_clone(&aio, trak_test_parent(1, 0, 8), NULL, false,
			       GFP_KERNEL);
	if (!TRAK_CHECK(clone) || !TRAK_CHECK(trak_test_parents.end[0].ended == 0))
		rc = -EINVAL;
	if (clone)
		trak_test_complete(clone, BLK_STS_OK);
	trak_aio_destroy(&aio);
	return rc;
}

static struct trak_aio trak_test_wait_aio;
static struct bio *trak_test_waiter_clone;

static void trak_test_clone_waiting(void *parent)
{
	trak_test_waiter_clone = trak_aio_clone(&trak_test_wait_aio, parent,
						NULL, true, GFP_KERNEL);
}

static void trak_test_destroy_aio(void *aio)
{
	trak_aio_destroy(aio);
}

/*
 * With a wait asked for, an overlapping clone is made once the one in
 * flight ends; a tracker goes away only when its last clone has ended.
 */
static int trak_test_aio_waits(void)
{
	struct trak_test_task task;
	struct bio *first;
	int rc = 0;

	if (!TRAK_CHECK(!trak_aio_init(&trak_test_wait_aio)))
		return -EINVAL;
	first = trak_aio_clone(&trak_test_wait_aio, trak_test_parent(0, 0, 8),
			       NULL, false, GFP_KERNEL);
	if (!TRAK_CHECK(first)) {
		trak_aio_destroy(&trak_test_wait_aio);
		return -EINVAL;
	}
	trak_test_waiter_clone = NULL;
	if (trak_test_task_start(&task, trak_test_clone_waiting,
				 trak_test_parent(1, 7, 8))) {
		trak_test_complete(first, BLK_STS_OK);
		trak_aio_destroy(&trak_test_wait_aio);
		return -EINVAL;
	}
	if (!TRAK_CHECK(trak_test_task_blocked(&task)))
		rc = -EINVAL;
	trak_test_complete(first, BLK_STS_OK);
	if (!TRAK_CHECK(trak_test_task_finished(&task)) ||
	    !TRAK_CHECK(trak_test_waiter_clone))
		rc = -EINVAL;
	trak_test_task_stop(&task);
	if (rc)
		return rc;

	if (trak_test_task_start(&task, trak_test_destroy_aio,
				 &trak_test_wait_aio))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_task_blocked(&task)))
		rc = -EINVAL;
	trak_test_complete(trak_test_waiter_clone, BLK_STS_OK);
	if (!TRAK_CHECK(trak_test_task_finished(&task)) ||
	    !TRAK_CHECK(trak_test_parents.end[1].ended == 1))
		rc = -EINVAL;
	trak_test_task_stop(&task);
	return rc;
}

#define TRAK_TEST_AIO(test)					\
static int test##_run(void)						\
{									\
	return trak_test_with_bios(&trak_test_parents, test);		\
}

TRAK_TEST_AIO(trak_test_aio_overlap)
TRAK_TEST_AIO(trak_test_aio_end_ends_parent_once)
TRAK_TEST_AIO(trak_test_aio_drop)
TRAK_TEST_AIO(trak_test_aio_waits)

const struct trak_test_case trak_aio_tests[] = {
	{ "aio_overlap", trak_test_aio_overlap_run },
	{ "aio_end_ends_parent_once", trak_test_aio_end_ends_parent_once_run },
	{ "aio_drop", trak_test_aio_drop_run },
	{ "aio_waits", trak_test_aio_waits_run },
	{ }
};
