// SPDX-License-Identifier: GPL-2.0
/*
 * Unit tests of the COW queue: where requests are placed, what counts as
 * overlapping, how waiting bios end when the queue is purged, and which
 * writers wait while the queue is full.
 */
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/jiffies.h>
#include <linux/sched/mm.h>

#include "snap/cowqueue.h"
#include "test_bios.h"
#include "trak_test.h"

static struct trak_test_bios trak_test_q_bios;

static struct bio *trak_test_q_bio(int i, sector_t sector,
				   unsigned int sectors, bool write)
{
	return trak_test_bio(&trak_test_q_bios, i, sector, sectors,
			     write ? REQ_OP_WRITE : REQ_OP_READ);
}

/* Whether the queue holds just requests that start at @firsts[0..n), in order. */
static bool trak_test_q_firsts(struct trak_cowqueue *q, const sector_t *firsts,
			       int n)
{
	struct trak_cow_request *req = NULL;
	int i;

	for (i = 0; i < n; i++) {
		req = trak_cowqueue_next(q, req);
		if (!req || req->first != firsts[i])
			return false;
	}
	return !trak_cowqueue_next(q, req) && trak_cowqueue_len(q) == n;
}

/*
 * Whether the queue holds just the bios @order[0..n), in order; the bios
 * of one test start at different sectors.
 */
static bool trak_test_q_order(struct trak_cowqueue *q, const int *order,
			      int n)
{
	sector_t firsts[TRAK_TEST_BIO_CNT];
	int i;

	for (i = 0; i < n; i++)
		firsts[i] = trak_test_q_bios.bio[order[i]]->bi_iter.bi_sector;
	return trak_test_q_firsts(q, firsts, n);
}

/* The queued request that starts at @first, or NULL. */
static struct trak_cow_request *trak_test_q_at(struct trak_cowqueue *q,
					       sector_t first)
{
	struct trak_cow_request *req = NULL;

	while ((req = trak_cowqueue_next(q, req)) && req->first != first)
		;
	return req;
}

/* Removes every request without ending its bio. */
static void trak_test_q_empty(struct trak_cowqueue *q)
{
	struct trak_cow_request *req;

	while ((req = trak_cowqueue_next(q, NULL)))
		trak_cowqueue_remove(q, req);
}

/* Reads overtake the writes they do not overlap, but never the head. */
static int trak_test_cowqueue_read_placement(void)
{
	static struct trak_cowqueue q;
	const int empty_read[] = { 0 };
	const int second_place[] = { 0, 2, 1 };
	const int after_third[] = { 0, 1, 2, 5, 3, 4 };
	int rc = -EINVAL;
	int i;

	if (!TRAK_CHECK(!trak_cowqueue_init(&q)))
		return -EINVAL;

	if (!TRAK_CHECK(!trak_cowqueue_append(&q, 1, trak_test_q_bio(0, 0, 8, false),
					      GFP_KERNEL)) ||
	    !TRAK_CHECK(trak_test_q_order(&q, empty_read, 1)))
		goto out;
	trak_test_q_empty(&q);

	trak_cowqueue_append(&q, 1, trak_test_q_bio(0, 0, 8, true), GFP_KERNEL);
	trak_cowqueue_append(&q, 1, trak_test_q_bio(1, 64, 8, true), GFP_KERNEL);
	trak_cowqueue_append(&q, 1, trak_test_q_bio(2, 200, 8, false), GFP_KERNEL);
	if (!TRAK_CHECK(trak_test_q_order(&q, second_place, 3)))
		goto out;
	trak_test_q_empty(&q);

	/* Five writes; a read overlapping the third and nothing after it. */
	for (i = 0; i < 5; i++)
		trak_cowqueue_append(&q, 1, trak_test_q_bio(i, i * 64, 16, true),
				     GFP_KERNEL);
	trak_cowqueue_append(&q, 1, trak_test_q_bio(5, 2 * 64 + 15, 2, false),
			     GFP_KERNEL);
	if (TRAK_CHECK(trak_test_q_order(&q, after_third, 6)))
		rc = 0;
out:
	trak_test_q_empty(&q);
	trak_cowqueue_destroy(&q);
	return rc;
}

/*
 * Overlap is of sectors, not of 4096-byte blocks; the direction asked for
 * is the only one looked at.
 */
static int trak_test_cowqueue_overlap(void)
{
	static struct trak_cowqueue q;
	struct bio *probe;
	int rc = 0;

	if (!TRAK_CHECK(!trak_cowqueue_init(&q)))
		return -EINVAL;
	/* A write of sectors 0..3 and a read of sectors 16..23. */
	trak_cowqueue_append(&q, 1, trak_test_q_bio(0, 0, 4, true), GFP_KERNEL);
	trak_cowqueue_append(&q, 1, trak_test_q_bio(1, 16, 8, false), GFP_KERNEL);

	probe = trak_test_q_bio(2, 4, 4, true);		/* same block, other sectors */
	if (!TRAK_CHECK(!trak_cowqueue_find_overlap_req(&q, 1, 1, probe)))
		rc = -EINVAL;
	probe = trak_test_q_bio(2, 3, 1, true);		/* the write's last sector */
	if (!TRAK_CHECK(trak_cowqueue_find_overlap_req(&q, 0, 1, probe)) ||
	    !TRAK_CHECK(!trak_cowqueue_find_overlap_req(&q, 1, 0, probe)))
		rc = -EINVAL;
	probe = trak_test_q_bio(2, 20, 64, false);	/* the read, and beyond */
	if (!TRAK_CHECK(trak_cowqueue_find_overlap_req(&q, 1, 0, probe)) ||
	    !TRAK_CHECK(!trak_cowqueue_find_overlap_req(&q, 0, 1, probe)))
		rc = -EINVAL;
	if (!TRAK_CHECK(!trak_cowqueue_overlaps_earlier(&q,
							trak_cowqueue_next(&q, NULL))))
		rc = -EINVAL;

	trak_test_q_empty(&q);
	trak_cowqueue_destroy(&q);
	return rc;
}

/* A purge ends every waiting bio once, with an I/O error. */
static int trak_test_cowqueue_purge(void)
{
	static struct trak_cowqueue q;
	int i, rc = 0;

	if (!TRAK_CHECK(!trak_cowqueue_init(&q)))
		return -EINVAL;
	for (i = 0; i < 3; i++)
		trak_cowqueue_append(&q, 1, trak_test_q_bio(i, i * 8, 8, true),
				     GFP_KERNEL);
	trak_cowqueue_purge(&q);
	for (i = 0; i < 3; i++) {
		if (!TRAK_CHECK(trak_test_q_bios.end[i].ended == 1) ||
		    !TRAK_CHECK(trak_test_q_bios.end[i].status == BLK_STS_IOERR))
			rc = -EINVAL;
	}
	if (!TRAK_CHECK(trak_cowqueue_len(&q) == 0) ||
	    !TRAK_CHECK(!trak_cowqueue_next(&q, NULL)))
		rc = -EINVAL;
	/* The last queue takes the shared pools with it; a new one remakes them. */
	trak_cowqueue_destroy(&q);
	if (!TRAK_CHECK(!trak_cowqueue_init(&q)))
		return -EINVAL;
	if (!TRAK_CHECK(!trak_cowqueue_append(&q, 1, trak_test_q_bio(0, 0, 8, true),
					      GFP_KERNEL)))
		rc = -EINVAL;
	trak_test_q_empty(&q);
	trak_cowqueue_destroy(&q);
	return rc;
}

/* A request re-stamped for no snap keeps its place. */
static int trak_test_cowqueue_restamp(void)
{
	static struct trak_cowqueue q;
	struct trak_cow_request *req;
	int rc = 0;

	if (!TRAK_CHECK(!trak_cowqueue_init(&q)))
		return -EINVAL;
	trak_cowqueue_append(&q, 3, trak_test_q_bio(0, 0, 8, true), GFP_KERNEL);
	trak_cowqueue_append(&q, 4, trak_test_q_bio(1, 8, 8, true), GFP_KERNEL);
	trak_cowqueue_restamp(&q, 3, -1);
	req = trak_cowqueue_next(&q, NULL);
	if (!TRAK_CHECK(req->snap_minor == -1) ||
	    !TRAK_CHECK(trak_cowqueue_next(&q, req)->snap_minor == 4))
		rc = -EINVAL;
	trak_test_q_empty(&q);
	trak_cowqueue_destroy(&q);
	return rc;
}

/*
 * A read goes after the last request in the list that it overlaps, which
 * need not be the one that came last: reads overtake writes.  What counts
 * as earlier for the COW thread is the same list order.
 */
static int trak_test_cowqueue_read_after_last_in_list(void)
{
	static struct trak_cowqueue q;
	const int order[] = { 0, 2, 1, 3 };
	int rc = -EINVAL;

	if (!TRAK_CHECK(!trak_cowqueue_init(&q)))
		return -EINVAL;
	trak_cowqueue_append(&q, 1, trak_test_q_bio(0, 0, 8, true), GFP_KERNEL);
	trak_cowqueue_append(&q, 1, trak_test_q_bio(1, 100, 8, true), GFP_KERNEL);
	/* Overlaps nothing: second place, ahead of the write at 100. */
	trak_cowqueue_append(&q, 1, trak_test_q_bio(2, 200, 8, false), GFP_KERNEL);
	/* Overlaps both; the write at 100 is the later one in the list. */
	trak_cowqueue_append(&q, 1, trak_test_q_bio(3, 99, 108, false),
			     GFP_KERNEL);
	if (!TRAK_CHECK(trak_test_q_order(&q, order, 4)) ||
	    !TRAK_CHECK(!trak_cowqueue_overlaps_earlier(&q, trak_test_q_at(&q, 0))) ||
	    !TRAK_CHECK(!trak_cowqueue_overlaps_earlier(&q, trak_test_q_at(&q, 200))) ||
	    !TRAK_CHECK(!trak_cowqueue_overlaps_earlier(&q, trak_test_q_at(&q, 100))) ||
	    !TRAK_CHECK(trak_cowqueue_overlaps_earlier(&q, trak_test_q_at(&q, 99))))
		goto out;
	/* Both requests it overlaps left: the read waits for nothing. */
	trak_cowqueue_remove(&q, trak_test_q_at(&q, 100));
	if (!TRAK_CHECK(trak_cowqueue_overlaps_earlier(&q, trak_test_q_at(&q, 99))))
		goto out;
	trak_cowqueue_remove(&q, trak_test_q_at(&q, 200));
	if (TRAK_CHECK(!trak_cowqueue_overlaps_earlier(&q, trak_test_q_at(&q, 99))))
		rc = 0;
out:
	trak_test_q_empty(&q);
	trak_cowqueue_destroy(&q);
	return rc;
}

#define TRAK_TEST_Q_READS	80

/*
 * Many reads overtaking the same writes, each into second place, use up
 * the room between two order keys; the order stays that of the list.
 */
static int trak_test_cowqueue_many_reads_keep_order(void)
{
	static sector_t firsts[TRAK_TEST_Q_READS + 3];
	static struct trak_cowqueue q;
	struct trak_cow_request *req;
	int i, rc = -EINVAL;

	if (!TRAK_CHECK(!trak_cowqueue_init(&q)))
		return -EINVAL;
	/* A head write, a write overlapping the first read to come. */
	trak_cowqueue_append(&q, 1, trak_test_q_bio(0, 0, 8, true), GFP_KERNEL);
	trak_cowqueue_append(&q, 1, trak_test_q_bio(0, 16, 8, true), GFP_KERNEL);
	firsts[0] = 0;
	for (i = 0; i < TRAK_TEST_Q_READS; i++) {
		/* Read i > 0 covers 1000 + 8 * i on; read 0 16..1007. */
		trak_cowqueue_append(&q, 1,
				     trak_test_q_bio(1, i ? 1000 + 8 * i : 16,
						     i ? 8 : 992, false),
				     GFP_KERNEL);
		firsts[TRAK_TEST_Q_READS - i] = i ? 1000 + 8 * i : 16;
	}
	/* Read 0 went after the write at 16; every later one in second place. */
	firsts[TRAK_TEST_Q_READS] = 16;
	firsts[TRAK_TEST_Q_READS + 1] = 16;
	/* A write over read 1 and read 0: at the tail, after both. */
	trak_cowqueue_append(&q, 1, trak_test_q_bio(2, 1004, 8, true), GFP_KERNEL);
	firsts[TRAK_TEST_Q_READS + 2] = 1004;
	if (!TRAK_CHECK(trak_test_q_firsts(&q, firsts, TRAK_TEST_Q_READS + 3)))
		goto out;
	rc = 0;
	for (req = trak_cowqueue_next(&q, NULL); req;
	     req = trak_cowqueue_next(&q, req)) {
		/* Only read 0 (after the write it overlaps) and the last write wait. */
		if (!TRAK_CHECK(trak_cowqueue_overlaps_earlier(&q, req) ==
				((!req->write && req->first == 16) ||
				 (req->write && req->first == 1004))))
			rc = -EINVAL;
	}
out:
	trak_test_q_empty(&q);
	trak_cowqueue_destroy(&q);
	return rc;
}

static struct bio *trak_test_q_waiting_bio;

static void trak_test_q_append_noio(void *queue)
{
	trak_cowqueue_append(queue, 1, trak_test_q_waiting_bio, GFP_NOIO);
}

/* Appends a write of @bio with @gfp; false if that took a wait. */
static bool trak_test_q_appends_at_once(struct trak_cowqueue *q,
					struct bio *bio, gfp_t gfp)
{
	unsigned long start = jiffies;

	return !trak_cowqueue_append(q, 1, bio, gfp) &&
	       jiffies_to_msecs(jiffies - start) < TRAK_TEST_BLOCKED_MS;
}

static void trak_test_q_remove_first(struct trak_cowqueue *q, int n)
{
	while (n--)
		trak_cowqueue_remove(q, trak_cowqueue_next(q, NULL));
}

/*
 * A full queue holds writers back, in the order they came, until room is
 * made; reads, atomic callers and tasks in a no-I/O scope (the COW thread,
 * kdirtyd) never wait.
 */
static int trak_test_cowqueue_bound(void)
{
	static struct trak_cowqueue q;
	struct trak_test_task first, second;
	struct bio *bio;
	unsigned int noio;
	int i, rc = -EINVAL;
	bool noio_at_once;

	if (!TRAK_CHECK(!trak_cowqueue_init(&q)))
		return -EINVAL;
	bio = trak_test_q_bio(0, 0, 8, true);
	for (i = 0; i < TRAK_COWQUEUE_MAX_HELD; i++) {
		if (!TRAK_CHECK(trak_test_q_appends_at_once(&q, bio, GFP_NOIO)))
			goto out;
	}
	noio = memalloc_noio_save();
	noio_at_once = trak_test_q_appends_at_once(&q, bio, GFP_NOIO);
	memalloc_noio_restore(noio);
	if (!TRAK_CHECK(noio_at_once) ||
	    !TRAK_CHECK(trak_test_q_appends_at_once(&q, bio, GFP_ATOMIC)) ||
	    !TRAK_CHECK(trak_test_q_appends_at_once(&q,
			trak_test_q_bio(1, 0, 8, false), GFP_NOIO)) ||
	    !TRAK_CHECK(trak_cowqueue_len(&q) == TRAK_COWQUEUE_MAX_HELD + 3))
		goto out;

	trak_test_q_waiting_bio = trak_test_q_bio(2, 64, 8, true);
	if (trak_test_task_start(&first, trak_test_q_append_noio, &q))
		goto out;
	if (!TRAK_CHECK(trak_test_task_blocked(&first)) ||
	    trak_test_task_start(&second, trak_test_q_append_noio, &q)) {
		trak_test_q_remove_first(&q, 4);
		trak_test_task_finished(&first);
		trak_test_task_stop(&first);
		goto out;
	}
	rc = 0;
	/* Back to the bound: still full. */
	trak_test_q_remove_first(&q, 3);
	if (!TRAK_CHECK(trak_test_task_blocked(&first)) ||
	    !TRAK_CHECK(trak_test_task_blocked(&second)))
		rc = -EINVAL;
	/* Room for one: the first writer takes it, the second waits on. */
	trak_test_q_remove_first(&q, 1);
	if (!TRAK_CHECK(trak_test_task_finished(&first)) ||
	    !TRAK_CHECK(trak_test_task_blocked(&second)) ||
	    !TRAK_CHECK(trak_cowqueue_len(&q) == TRAK_COWQUEUE_MAX_HELD))
		rc = -EINVAL;
	trak_test_q_remove_first(&q, 1);
	if (!TRAK_CHECK(trak_test_task_finished(&second)) ||
	    !TRAK_CHECK(trak_cowqueue_len(&q) == TRAK_COWQUEUE_MAX_HELD) ||
	    !TRAK_CHECK(trak_test_q_at(&q, 64)))
		rc = -EINVAL;
	trak_test_task_stop(&first);
	trak_test_task_stop(&second);
out:
	trak_test_q_empty(&q);
	trak_cowqueue_destroy(&q);
	return rc;
}

/*
 * A writer held back by a COW thread that cannot make room at all gives
 * up waiting after a while, rather than hold its locks for good.
 */
static int trak_test_cowqueue_bound_gives_up(void)
{
	static struct trak_cowqueue q;
	struct trak_test_task writer;
	struct bio *bio;
	int i, rc = 0;

	if (!TRAK_CHECK(!trak_cowqueue_init(&q)))
		return -EINVAL;
	bio = trak_test_q_bio(0, 0, 8, true);
	for (i = 0; i < TRAK_COWQUEUE_MAX_HELD; i++)
		trak_cowqueue_append(&q, 1, bio, GFP_NOIO);
	trak_test_q_waiting_bio = trak_test_q_bio(1, 64, 8, true);
	if (trak_test_task_start(&writer, trak_test_q_append_noio, &q)) {
		rc = -EINVAL;
		goto out;
	}
	if (!TRAK_CHECK(trak_test_task_blocked(&writer)) ||
	    !TRAK_CHECK(wait_for_completion_timeout(&writer.done,
			msecs_to_jiffies(TRAK_COWQUEUE_THROTTLE_MS +
					 TRAK_TEST_WAKE_MS))) ||
	    !TRAK_CHECK(trak_cowqueue_len(&q) == TRAK_COWQUEUE_MAX_HELD + 1))
		rc = -EINVAL;
	trak_test_task_stop(&writer);
out:
	trak_test_q_empty(&q);
	trak_cowqueue_destroy(&q);
	return rc;
}

#define TRAK_TEST_Q(test)					\
static int test##_run(void)						\
{									\
	return trak_test_with_bios(&trak_test_q_bios, test);		\
}

TRAK_TEST_Q(trak_test_cowqueue_read_placement)
TRAK_TEST_Q(trak_test_cowqueue_overlap)
TRAK_TEST_Q(trak_test_cowqueue_purge)
TRAK_TEST_Q(trak_test_cowqueue_restamp)
TRAK_TEST_Q(trak_test_cowqueue_read_after_last_in_list)
TRAK_TEST_Q(trak_test_cowqueue_many_reads_keep_order)
TRAK_TEST_Q(trak_test_cowqueue_bound)
TRAK_TEST_Q(trak_test_cowqueue_bound_gives_up)

const struct trak_test_case trak_cowqueue_tests[] = {
	{ "cowqueue_read_placement", trak_test_cowqueue_read_placement_run },
	{ "cowqueue_overlap", trak_test_cowqueue_overlap_run },
	{ "cowqueue_purge", trak_test_cowqueue_purge_run },
	{ "cowqueue_restamp", trak_test_cowqueue_restamp_run },
	{ "cowqueue_read_after_last_in_list",
	  trak_test_cowqueue_read_after_last_in_list_run },
	{ "cowqueue_many_reads_keep_order",
	  trak_test_cowqueue_many_reads_keep_order_run },
	{ "cowqueue_bound", trak_test_cowqueue_bound_run },
	{ "cowqueue_bound_gives_up", trak_test_cowqueue_bound_gives_up_run },
	{ }
};
