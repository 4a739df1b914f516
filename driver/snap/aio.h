/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The request tracker of a filter node.  Every request a filter with snaps
 * passes down to its partition goes as a tracked clone: the clone's
 * completion completes the request, and no clone is issued while an
 * earlier tracked one overlaps its sectors, so that two requests of one
 * filter never touch the same sectors at once (a snap read from the
 * partition never races with the write that would change what it reads).
 */
#ifndef TRAK_SNAP_AIO_H
#define TRAK_SNAP_AIO_H

#include <linux/rbtree.h>
#include <linux/spinlock.h>
#include <linux/types.h>
#include <linux/wait.h>

struct bio;
struct block_device;

struct trak_aio {
	spinlock_t lock;		/* the tree and the count; taken in completions */
	struct rb_root_cached tree;	/* clones in flight, by sector range */
	unsigned int inflight;		/* clones made and not yet put */
	wait_queue_head_t wait;		/* a clone went away */
};

int trak_aio_init(struct trak_aio *aio);
/* Waits until no clone of @aio is left, then releases what it holds. */
void trak_aio_destroy(struct trak_aio *aio);
/*
 * Waits at most @timeout jiffies until every clone of @aio made so far has
 * ended; false when some are still in flight.
 */
bool trak_aio_wait_idle(struct trak_aio *aio, unsigned long timeout);

/*
 * A clone of @bio bound for @bdev, whose completion ends @bio; or NULL
 * when memory is short, or, with @wait false, when a tracked clone in
 * flight overlaps @bio (with @wait true the call sleeps until none does).
 * The caller issues the clone with submit_bio_noacct(), or gives it back
 * with trak_aio_drop(); @bio is then no longer the caller's to end.
 */
struct bio *trak_aio_clone(struct trak_aio *aio, struct bio *bio,
			   struct block_device *bdev, bool wait, gfp_t gfp);
/* Gives back a clone that was not issued; its parent is left alone. */
void trak_aio_drop(struct bio *clone);

#endif
