// SPDX-License-Identifier: GPL-2.0
/*
 * The request tracker: clones from one module-owned bio_set, each carrying
 * its tracking record in the bio_set's front padding, kept in an interval
 * tree of sector ranges while in flight.  The bio_set lives while any
 * filter has a tracker.
 */
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/interval_tree_generic.h>
#include <linux/mutex.h>
#include <linux/sched.h>

#include "aio.h"
#include "core/log.h"

struct trak_aio_item {
	struct rb_node rb;
	sector_t first;
	sector_t last;
	sector_t subtree_last;
	struct trak_aio *aio;
	struct bio *parent;
	struct bio clone;	/* last: the bio_set's bio follows its front pad */
};

#define TRAK_AIO_FIRST(item)	((item)->first)
#define TRAK_AIO_LAST(item)	((item)->last)

INTERVAL_TREE_DEFINE(struct trak_aio_item, rb, sector_t, subtree_last,
		     TRAK_AIO_FIRST, TRAK_AIO_LAST, static inline, trak_aio_tree)

#define TRAK_AIO_POOL_SIZE	4096

static struct bio_set trak_aio_bioset;
static int trak_aio_cnt;		/* live trackers */
static DEFINE_MUTEX(trak_aio_cnt_lock);

int trak_aio_init(struct trak_aio *aio)
{
	int rc = 0;

	trak_log(2, "%s(): Initializing AIO tracker.", __func__);
	mutex_lock(&trak_aio_cnt_lock);
	if (!trak_aio_cnt) {
		rc = bioset_init(&trak_aio_bioset, TRAK_AIO_POOL_SIZE,
				 offsetof(struct trak_aio_item, clone), 0);
		if (rc)
			trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
				 __func__);
	}
	if (!rc)
		trak_aio_cnt++;
	mutex_unlock(&trak_aio_cnt_lock);
	if (rc)
		return -ENOMEM;

	spin_lock_init(&aio->lock);
	aio->tree = RB_ROOT_CACHED;
	aio->inflight = 0;
	init_waitqueue_head(&aio->wait);
	return 0;
}

static bool trak_aio_idle(struct trak_aio *aio)
{
	bool idle;

	spin_lock_irq(&aio->lock);
	idle = !aio->inflight;
	spin_unlock_irq(&aio->lock);
	return idle;
}

bool trak_aio_wait_idle(struct trak_aio *aio, unsigned long timeout)
{
	return wait_event_timeout(aio->wait, trak_aio_idle(aio), timeout);
}

/*
 * A clone in flight holds its parent, which its submitter waits for; the
 * tracker must outlive it, so it waits rather than end the parents early.
 */
void trak_aio_destroy(struct trak_aio *aio)
{
	trak_log(2, "%s(): Destroying AIO tracker.", __func__);
	trak_aio_wait_idle(aio, MAX_SCHEDULE_TIMEOUT);

	mutex_lock(&trak_aio_cnt_lock);
	if (!--trak_aio_cnt) {
		trak_log(2, "%s(): Destroying global AIO allocators.", __func__);
		bioset_exit(&trak_aio_bioset);
	}
	mutex_unlock(&trak_aio_cnt_lock);
	memset(aio, 0, sizeof(*aio));
}

/* Enters @item unless a tracked clone overlaps it; true when entered. */
static bool trak_aio_try_enter(struct trak_aio *aio, struct trak_aio_item *item)
{
	unsigned long flags;
	bool free;

	spin_lock_irqsave(&aio->lock, flags);
	free = !trak_aio_tree_iter_first(&aio->tree, item->first, item->last);
	if (free)
		trak_aio_tree_insert(item, &aio->tree);
	spin_unlock_irqrestore(&aio->lock, flags);
	return free;
}

/*
 * Leaves the tree and puts the clone.  The count drops only after the put,
 * and the wake-up happens under the lock: a tracker being destroyed (and
 * the bio_set with the last one) outlives every clone it counted.
 */
static void trak_aio_leave(struct trak_aio_item *item)
{
	struct trak_aio *aio = item->aio;
	unsigned long flags;

	spin_lock_irqsave(&aio->lock, flags);
	if (!RB_EMPTY_NODE(&item->rb))
		trak_aio_tree_remove(item, &aio->tree);
	spin_unlock_irqrestore(&aio->lock, flags);

	bio_put(&item->clone);

	spin_lock_irqsave(&aio->lock, flags);
	aio->inflight--;
	wake_up_all(&aio->wait);
	spin_unlock_irqrestore(&aio->lock, flags);
}

static void trak_aio_end_io(struct bio *clone)
{
	struct trak_aio_item *item = container_of(clone, struct trak_aio_item,
						  clone);
	struct bio *parent = item->parent;

	parent->bi_status = clone->bi_status;
	trak_aio_leave(item);
	bio_endio(parent);
}

struct bio *trak_aio_clone(struct trak_aio *aio, struct bio *bio,
			   struct block_device *bdev, bool wait, gfp_t gfp)
{
	struct trak_aio_item *item;
	struct bio *clone;

	clone = bio_alloc_clone(bdev, bio, gfp, &trak_aio_bioset);
	if (!clone) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to clone BIO.", __func__);
		return NULL;
	}
	item = container_of(clone, struct trak_aio_item, clone);
	RB_CLEAR_NODE(&item->rb);
	item->first = bio->bi_iter.bi_sector;
	item->last = bio_end_sector(bio) - 1;
	item->aio = aio;
	item->parent = bio;
	clone->bi_end_io = trak_aio_end_io;

	spin_lock_irq(&aio->lock);
	aio->inflight++;
	spin_unlock_irq(&aio->lock);

	if (!trak_aio_try_enter(aio, item)) {
		if (!wait) {
			trak_aio_leave(item);
			return NULL;
		}
		trak_log(3, "%s(): waiting...", __func__);
		wait_event(aio->wait, trak_aio_try_enter(aio, item));
	}
	return clone;
}

void trak_aio_drop(struct bio *clone)
{
	trak_aio_leave(container_of(clone, struct trak_aio_item, clone));
}
