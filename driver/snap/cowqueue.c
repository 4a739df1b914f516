// SPDX-License-Identifier: GPL-2.0
/*
 * The COW queue: an ordered list of held requests and a hash of the
 * 4096-byte blocks they touch.  Requests and blocks come from memory
 * pools shared by every queue, so that holding a request can succeed
 * under memory pressure on the I/O path.
 */
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/mempool.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/vmalloc.h>

#include "core/log.h"
#include "cowqueue.h"

#define TRAK_COWQUEUE_BUCKETS	16384
#define TRAK_COWQUEUE_POOL_SIZE	8192
#define TRAK_BLOCK_SECTOR_SHIFT	3	/* 4096-byte blocks */

/* One 4096-byte block of a held request, in its hash bucket. */
struct trak_cow_block {
	struct list_head link;		/* in its request's blocks */
	struct list_head hash_link;
	struct trak_cow_request *req;
};

/* Shared by every queue; made by the first, freed with the last. */
static struct kmem_cache *trak_cow_request_cache;
static struct kmem_cache *trak_cow_block_cache;
static mempool_t *trak_cow_request_pool;
static mempool_t *trak_cow_block_pool;
static u32 trak_cowqueue_cnt;
static DEFINE_MUTEX(trak_cowqueue_cnt_lock);

static void trak_cowqueue_free_globals(void)
{
	mempool_destroy(trak_cow_request_pool);
	mempool_destroy(trak_cow_block_pool);
	kmem_cache_destroy(trak_cow_request_cache);
	kmem_cache_destroy(trak_cow_block_cache);
	trak_cow_request_pool = NULL;
	trak_cow_block_pool = NULL;
	trak_cow_request_cache = NULL;
	trak_cow_block_cache = NULL;
}

static bool trak_cowqueue_make_globals(void)
{
	if (!trak_cow_request_cache)
		trak_cow_request_cache =
			kmem_cache_create("cow_request",
					  sizeof(struct trak_cow_request), 0, 0,
					  NULL);
	if (!trak_cow_block_cache)
		trak_cow_block_cache =
			kmem_cache_create("cow_block",
					  sizeof(struct trak_cow_block), 0, 0,
					  NULL);
	if (!trak_cow_request_pool && trak_cow_request_cache)
		trak_cow_request_pool =
			mempool_create_slab_pool(TRAK_COWQUEUE_POOL_SIZE,
						 trak_cow_request_cache);
	if (!trak_cow_block_pool && trak_cow_block_cache)
		trak_cow_block_pool =
			mempool_create_slab_pool(TRAK_COWQUEUE_POOL_SIZE,
						 trak_cow_block_cache);
	return trak_cow_request_pool && trak_cow_block_pool;
}

int trak_cowqueue_init(struct trak_cowqueue *q)
{
	bool globals;
	u32 i;

	memset(q, 0, sizeof(*q));
	spin_lock_init(&q->lock);
	INIT_LIST_HEAD(&q->requests);
	init_waitqueue_head(&q->wait);
	init_waitqueue_head(&q->progress);
	q->hash = vmalloc(array_size(TRAK_COWQUEUE_BUCKETS, sizeof(*q->hash)));
	if (q->hash) {
		for (i = 0; i < TRAK_COWQUEUE_BUCKETS; i++)
			INIT_LIST_HEAD(&q->hash[i]);
	} else {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to create queue hash.",
			 __func__);
	}

	mutex_lock(&trak_cowqueue_cnt_lock);
	trak_cowqueue_cnt++;
	globals = trak_cowqueue_make_globals();
	if (!globals)
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
	if (!globals || !q->hash) {
		if (!--trak_cowqueue_cnt)
			trak_cowqueue_free_globals();
		mutex_unlock(&trak_cowqueue_cnt_lock);
		vfree(q->hash);
		memset(q, 0, sizeof(*q));
		return -ENOMEM;
	}
	mutex_unlock(&trak_cowqueue_cnt_lock);
	return 0;
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
	vfree(q->hash);
	memset(q, 0, sizeof(*q));
	return 0;
}

static struct list_head *trak_cowqueue_bucket(struct trak_cowqueue *q,
					      sector_t key)
{
	return &q->hash[key & (TRAK_COWQUEUE_BUCKETS - 1)];
}

static bool trak_cow_ranges_overlap(sector_t first1, sector_t last1,
				    sector_t first2, sector_t last2)
{
	return first1 <= last2 && first2 <= last1;
}

static bool trak_cow_requests_overlap(const struct trak_cow_request *a,
				      const struct trak_cow_request *b)
{
	return trak_cow_ranges_overlap(a->first, a->last, b->first, b->last);
}

static void trak_cow_request_free(struct trak_cow_request *req)
{
	struct trak_cow_block *blk, *next;

	list_for_each_entry_safe(blk, next, &req->blocks, link)
		mempool_free(blk, trak_cow_block_pool);
	mempool_free(req, trak_cow_request_pool);
}

/* A request with its blocks, not yet in any queue. */
static struct trak_cow_request *trak_cow_request_alloc(s32 snap_minor,
						       struct bio *bio,
						       gfp_t gfp)
{
	struct trak_cow_request *req;
	struct trak_cow_block *blk;
	sector_t key;

	req = mempool_alloc(trak_cow_request_pool, gfp);
	if (!req)
		return NULL;
	memset(req, 0, sizeof(*req));
	INIT_LIST_HEAD(&req->blocks);
	req->snap_minor = snap_minor;
	req->bio = bio;
	req->first = bio->bi_iter.bi_sector;
	req->last = bio_end_sector(bio) - 1;
	req->write = op_is_write(bio_op(bio));

	for (key = req->first >> TRAK_BLOCK_SECTOR_SHIFT;
	     key <= req->last >> TRAK_BLOCK_SECTOR_SHIFT; key++) {
		blk = mempool_alloc(trak_cow_block_pool, gfp);
		if (!blk) {
			trak_cow_request_free(req);
			return NULL;
		}
		blk->req = req;
		list_add_tail(&blk->link, &req->blocks);
	}
	return req;
}

/*
 * Where a new request goes: writes at the tail; a read right after the
 * nearest request it overlaps, or else in second place, so that it
 * overtakes the writes it does not conflict with but never the head,
 * which the COW thread may be serving.
 */
static struct list_head *trak_cowqueue_place(struct trak_cowqueue *q,
					     struct trak_cow_request *req)
{
	struct trak_cow_request *other;

	if (req->write || list_empty(&q->requests))
		return q->requests.prev;
	list_for_each_entry_reverse(other, &q->requests, link) {
		if (trak_cow_requests_overlap(other, req))
			return &other->link;
	}
	return q->requests.next;
}

int trak_cowqueue_append(struct trak_cowqueue *q, s32 snap_minor,
			 struct bio *bio, gfp_t gfp)
{
	struct trak_cow_request *req;
	struct trak_cow_block *blk;
	unsigned long flags;
	sector_t key;

	trak_log(3, "%s(): Appending new request...", __func__);
	req = trak_cow_request_alloc(snap_minor, bio, gfp);
	if (!req) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed",
			 __func__);
		return -ENOMEM;
	}

	spin_lock_irqsave(&q->lock, flags);
	key = req->first >> TRAK_BLOCK_SECTOR_SHIFT;
	list_for_each_entry(blk, &req->blocks, link)
		list_add(&blk->hash_link, trak_cowqueue_bucket(q, key++));
	q->cnt++;
	list_add(&req->link, trak_cowqueue_place(q, req));
	spin_unlock_irqrestore(&q->lock, flags);
	wake_up(&q->wait);
	return 0;
}

int trak_cowqueue_find_overlap_req(struct trak_cowqueue *q, int match_reads,
				   int match_writes, struct bio *bio)
{
	sector_t first = bio->bi_iter.bi_sector;
	sector_t last = bio_end_sector(bio) - 1;
	struct trak_cow_block *blk;
	struct trak_cow_request *req;
	unsigned long flags;
	bool found = false;
	sector_t key;

	BUG_ON(!match_reads && !match_writes);
	spin_lock_irqsave(&q->lock, flags);
	for (key = first >> TRAK_BLOCK_SECTOR_SHIFT;
	     !found && key <= last >> TRAK_BLOCK_SECTOR_SHIFT; key++) {
		list_for_each_entry(blk, trak_cowqueue_bucket(q, key),
				    hash_link) {
			req = blk->req;
			if ((req->write ? match_writes : match_reads) &&
			    trak_cow_ranges_overlap(req->first, req->last,
						    first, last)) {
				found = true;
				break;
			}
		}
	}
	spin_unlock_irqrestore(&q->lock, flags);
	return found;
}

/* Called with the queue's lock held. */
static void trak_cowqueue_unlink(struct trak_cowqueue *q,
				 struct trak_cow_request *req)
{
	struct trak_cow_block *blk;

	list_for_each_entry(blk, &req->blocks, link)
		list_del(&blk->hash_link);
	list_del(&req->link);
	q->cnt--;
}

void trak_cowqueue_remove(struct trak_cowqueue *q,
			  struct trak_cow_request *req)
{
	unsigned long flags;

	spin_lock_irqsave(&q->lock, flags);
	trak_cowqueue_unlink(q, req);
	spin_unlock_irqrestore(&q->lock, flags);
	trak_cow_request_free(req);
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
		trak_cow_request_free(req);
		bio_io_error(bio);
	}
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
	bool found = false;

	spin_lock_irqsave(&q->lock, flags);
	list_for_each_entry(other, &q->requests, link) {
		if (other == req)
			break;
		if (trak_cow_requests_overlap(other, req)) {
			found = true;
			break;
		}
	}
	spin_unlock_irqrestore(&q->lock, flags);
	return found;
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
