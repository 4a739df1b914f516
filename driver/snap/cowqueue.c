// SPDX-License-Identifier: GPL-2.0
/*
 * The COW queue: an ordered list of held requests and an interval tree of
 * their sector ranges.  Requests come from a memory pool shared by every
 * queue, so that holding a request can succeed under memory pressure on
 * the I/O path: one element per request, however large the request.
 */
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/interval_tree_generic.h>
#include <linux/mempool.h>
#include <linux/mutex.h>
#include <linux/sched.h>
#include <linux/slab.h>

#include "core/log.h"
#include "cowqueue.h"
#include "cowthread.h"

#define TRAK_COWQUEUE_POOL_SIZE	8192
/*
 * Spacing of the order keys of requests added at the tail: a read placed
 * between two requests takes the middle of their keys, so that many reads
 * can overtake the same writes before the keys must be spread again.
 */
#define TRAK_COWQUEUE_ORDER_GAP	(1ULL << 32)

#define TRAK_COW_REQ_FIRST(req)	((req)->first)
#define TRAK_COW_REQ_LAST(req)	((req)->last)

INTERVAL_TREE_DEFINE(struct trak_cow_request, rb, sector_t, subtree_last,
		     TRAK_COW_REQ_FIRST, TRAK_COW_REQ_LAST, static inline,
		     trak_cow_tree)

/* Shared by every queue; made by the first, freed with the last. */
static struct kmem_cache *trak_cow_request_cache;
static mempool_t *trak_cow_request_pool;
static u32 trak_cowqueue_cnt;
static DEFINE_MUTEX(trak_cowqueue_cnt_lock);

static void trak_cowqueue_free_globals(void)
{
	mempool_destroy(trak_cow_request_pool);
	kmem_cache_destroy(trak_cow_request_cache);
	trak_cow_request_pool = NULL;
	trak_cow_request_cache = NULL;
}

static bool trak_cowqueue_make_globals(void)
{
	if (!trak_cow_request_cache)
		trak_cow_request_cache =
			kmem_cache_create("cow_request",
					  sizeof(struct trak_cow_request), 0, 0,
					  NULL);
	if (!trak_cow_request_pool && trak_cow_request_cache)
		trak_cow_request_pool =
			mempool_create_slab_pool(TRAK_COWQUEUE_POOL_SIZE,
						 trak_cow_request_cache);
	return trak_cow_request_pool;
}

int trak_cowqueue_init(struct trak_cowqueue *q)
{
	int rc = 0;

	memset(q, 0, sizeof(*q));
	spin_lock_init(&q->lock);
	INIT_LIST_HEAD(&q->requests);
	q->tree = RB_ROOT_CACHED;
	init_waitqueue_head(&q->wait);
	init_waitqueue_head(&q->progress);
	init_waitqueue_head(&q->room);

	mutex_lock(&trak_cowqueue_cnt_lock);
	trak_cowqueue_cnt++;
	if (!trak_cowqueue_make_globals()) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		if (!--trak_cowqueue_cnt)
			trak_cowqueue_free_globals();
		memset(q, 0, sizeof(*q));
		rc = -ENOMEM;
	}
	mutex_unlock(&trak_cowqueue_cnt_lock);
	return rc;
}

int trak_cowqueue_destroy(struct trak_cowqueue *q)
{
	int rc;

	trak_log(1, "%s(): Destroying COW queue", __func__);
	rc = trak_cowqueue_purge(q);
	if (rc)
		return rc;

	mutex_lock(&trak_cowqueue_cnt_lock);
	if (!--trak_cowqueue_cnt) {
		trak_log(2, "%s(): Destroying global COW allocators.", __func__);
		trak_cowqueue_free_globals();
	}
	mutex_unlock(&trak_cowqueue_cnt_lock);
	memset(q, 0, sizeof(*q));
	return 0;
}

/* Gives every request a key again, evenly spaced in list order. */
static void trak_cowqueue_spread_order(struct trak_cowqueue *q)
{
	struct trak_cow_request *req;
	u64 order = 0;

	list_for_each_entry(req, &q->requests, link) {
		order += TRAK_COWQUEUE_ORDER_GAP;
		req->order = order;
	}
}

/* Gives @req, just linked into the list, a key between its neighbours'. */
static void trak_cowqueue_set_order(struct trak_cowqueue *q,
				    struct trak_cow_request *req)
{
	u64 before = 0, after;

	if (req->link.prev != &q->requests)
		before = list_prev_entry(req, link)->order;
	if (list_is_last(&req->link, &q->requests)) {
		if (before <= U64_MAX - TRAK_COWQUEUE_ORDER_GAP) {
			req->order = before + TRAK_COWQUEUE_ORDER_GAP;
			return;
		}
	} else {
		after = list_next_entry(req, link)->order;
		if (after - before >= 2) {
			req->order = before + (after - before) / 2;
			return;
		}
	}
	trak_cowqueue_spread_order(q);
}

/*
 * Where a new request goes: writes at the tail; a read right after the
 * last request in the list that it overlaps, or else in second place, so
 * that it overtakes the writes it does not conflict with but never the
 * head, which the COW thread may be serving.
 */
static struct list_head *trak_cowqueue_place(struct trak_cowqueue *q,
					     struct trak_cow_request *req)
{
	struct trak_cow_request *other, *last = NULL;

	if (req->write || list_empty(&q->requests))
		return q->requests.prev;
	for (other = trak_cow_tree_iter_first(&q->tree, req->first, req->last); other;
	     other = trak_cow_tree_iter_next(other, req->first, req->last)) {
		if (!last || other->order > last->order)
			last = other;
	}
	return last ? &last->link : q->requests.next;
}

/*
 * Whether this append may sleep for room: only a write, and only from a
 * task that nothing the COW thread waits for depends on.  The COW thread's
 * own writes to its COW files may pass through another filter, and
 * kdirtyd (in a no-I/O scope, like the COW thread) releases writes that
 * the COW thread's file writes may wait for.
 */
static bool trak_cowqueue_may_throttle(struct trak_cow_request *req,
				       gfp_t gfp)
{
	return req->write && gfpflags_allow_blocking(gfp) &&
	       !(current->flags & PF_MEMALLOC_NOIO) &&
	       !trak_current_is_cowthread();
}

/*
 * Waits, with the queue's lock held across the checks, until the queue
 * has room or the wait is too long (then false).  Writers wait in line and
 * keep their places when woken in vain; a newcomer does not take room
 * that a woken writer is about to take.  The sleep flushes the caller's
 * plug, so the requests it plugged before go on meanwhile.
 */
static bool trak_cowqueue_wait_room(struct trak_cowqueue *q,
				    unsigned long *flags)
{
	unsigned long deadline = jiffies +
				 msecs_to_jiffies(TRAK_COWQUEUE_THROTTLE_MS);
	bool behind = q->throttled;
	wait_queue_entry_t wait;
	bool room;
	long left;

	if (!behind && q->cnt < TRAK_COWQUEUE_MAX_HELD)
		return true;
	q->throttled++;
	init_waitqueue_entry(&wait, current);
	add_wait_queue_exclusive(&q->room, &wait);
	for (;;) {
		set_current_state(TASK_UNINTERRUPTIBLE);
		room = !behind && q->cnt < TRAK_COWQUEUE_MAX_HELD;
		left = deadline - jiffies;
		if (room || left <= 0)
			break;
		behind = false;
		spin_unlock_irqrestore(&q->lock, *flags);
		io_schedule_timeout(left);
		spin_lock_irqsave(&q->lock, *flags);
	}
	__set_current_state(TASK_RUNNING);
	remove_wait_queue(&q->room, &wait);
	q->throttled--;
	return room;
}

/* Called with the queue's lock held: whether a waiting writer fits in. */
static bool trak_cowqueue_room_for_waiter(struct trak_cowqueue *q)
{
	return q->throttled && q->cnt < TRAK_COWQUEUE_MAX_HELD;
}

int trak_cowqueue_append(struct trak_cowqueue *q, s32 snap_minor,
			 struct bio *bio, gfp_t gfp)
{
	struct trak_cow_request *req;
	bool pass_room, room = true;
	unsigned long flags;

	trak_log(3, "%s(): Appending new request...", __func__);
	req = mempool_alloc(trak_cow_request_pool, gfp);
	if (!req) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed",
			 __func__);
		return -ENOMEM;
	}
	memset(req, 0, sizeof(*req));
	req->snap_minor = snap_minor;
	req->bio = bio;
	req->first = bio->bi_iter.bi_sector;
	req->last = bio_end_sector(bio) - 1;
	req->write = op_is_write(bio_op(bio));

	spin_lock_irqsave(&q->lock, flags);
	if (trak_cowqueue_may_throttle(req, gfp))
		room = trak_cowqueue_wait_room(q, &flags);
	list_add(&req->link, trak_cowqueue_place(q, req));
	trak_cowqueue_set_order(q, req);
	trak_cow_tree_insert(req, &q->tree);
	q->cnt++;
	/* Room left over goes to the next writer in line. */
	pass_room = trak_cowqueue_room_for_waiter(q);
	spin_unlock_irqrestore(&q->lock, flags);
	if (!room)
		trak_log(2, "%s(): COW queue still full after %d ms",
			 __func__, TRAK_COWQUEUE_THROTTLE_MS);
	if (pass_room)
		wake_up(&q->room);
	wake_up(&q->wait);
	return 0;
}

int trak_cowqueue_find_overlap_req(struct trak_cowqueue *q, int match_reads,
				   int match_writes, struct bio *bio)
{
	sector_t first = bio->bi_iter.bi_sector;
	sector_t last = bio_end_sector(bio) - 1;
	struct trak_cow_request *req;
	unsigned long flags;

	BUG_ON(!match_reads && !match_writes);
	spin_lock_irqsave(&q->lock, flags);
	for (req = trak_cow_tree_iter_first(&q->tree, first, last); req;
	     req = trak_cow_tree_iter_next(req, first, last)) {
		if (req->write ? match_writes : match_reads)
			break;
	}
	spin_unlock_irqrestore(&q->lock, flags);
	return !!req;
}

/* Called with the queue's lock held. */
static void trak_cowqueue_unlink(struct trak_cowqueue *q,
				 struct trak_cow_request *req)
{
	trak_cow_tree_remove(req, &q->tree);
	list_del(&req->link);
	q->cnt--;
}

void trak_cowqueue_remove(struct trak_cowqueue *q,
			  struct trak_cow_request *req)
{
	unsigned long flags;
	bool room;

	spin_lock_irqsave(&q->lock, flags);
	trak_cowqueue_unlink(q, req);
	room = trak_cowqueue_room_for_waiter(q);
	spin_unlock_irqrestore(&q->lock, flags);
	mempool_free(req, trak_cow_request_pool);
	if (room)
		wake_up(&q->room);
	wake_up_all(&q->progress);
}

int trak_cowqueue_purge(struct trak_cowqueue *q)
{
	struct trak_cow_request *req;
	unsigned long flags;
	struct bio *bio;

	trak_log(1, "%s(): Purging all COW queue requests", __func__);
	for (;;) {
		spin_lock_irqsave(&q->lock, flags);
		req = list_first_entry_or_null(&q->requests,
					       struct trak_cow_request, link);
		if (req)
			trak_cowqueue_unlink(q, req);
		spin_unlock_irqrestore(&q->lock, flags);
		if (!req)
			break;
		bio = req->bio;
		mempool_free(req, trak_cow_request_pool);
		bio_io_error(bio);
	}
	wake_up_all(&q->room);
	wake_up_all(&q->progress);
	return 0;
}

struct trak_cow_request *trak_cowqueue_next(struct trak_cowqueue *q,
					    struct trak_cow_request *req)
{
	struct trak_cow_request *next;
	unsigned long flags;

	spin_lock_irqsave(&q->lock, flags);
	if (!req)
		next = list_first_entry_or_null(&q->requests,
						struct trak_cow_request, link);
	else if (list_is_last(&req->link, &q->requests))
		next = NULL;
	else
		next = list_next_entry(req, link);
	spin_unlock_irqrestore(&q->lock, flags);
	return next;
}

bool trak_cowqueue_overlaps_earlier(struct trak_cowqueue *q,
				    struct trak_cow_request *req)
{
	struct trak_cow_request *other;
	unsigned long flags;

	spin_lock_irqsave(&q->lock, flags);
	for (other = trak_cow_tree_iter_first(&q->tree, req->first, req->last); other;
	     other = trak_cow_tree_iter_next(other, req->first, req->last)) {
		if (other->order < req->order)
			break;
	}
	spin_unlock_irqrestore(&q->lock, flags);
	return other != NULL;
}

void trak_cowqueue_restamp(struct trak_cowqueue *q, s32 from, s32 to)
{
	struct trak_cow_request *req;
	unsigned long flags;

	spin_lock_irqsave(&q->lock, flags);
	list_for_each_entry(req, &q->requests, link) {
		if (req->snap_minor == from)
			req->snap_minor = to;
	}
	spin_unlock_irqrestore(&q->lock, flags);
}

static bool trak_cowqueue_empty(struct trak_cowqueue *q)
{
	return !trak_cowqueue_len(q);
}

void trak_cowqueue_wait_empty(struct trak_cowqueue *q)
{
	wait_event(q->progress, trak_cowqueue_empty(q));
}
