// SPDX-License-Identifier: GPL-2.0
/*
 * Request routing: every bio addressed to a trak node enters here.  A write
 * through a filter node sets the bits of the extents it touches in both
 * change bitmaps before it is passed on to the partition below, and waits
 * first when a bitmap file must be marked dirty (guard.c).
 */
#include <linux/atomic.h>
#include <linux/bio.h>
#include <linux/blkdev.h>

#include "block/registry.h"
#include "core/log.h"
#include "core/params.h"
#include "guard.h"
#include "router.h"
#include "snap/route.h"

/*
 * Every request a filter sends on leaves through here, from the request
 * path and where held writes are released, with the filter's io_lock held
 * for reading and io_cnt counted: with snaps, copy-on-write decides on the
 * state of the snaps at this moment.  A bio that cannot go on is ended
 * here, since no caller is left to end it.
 */
static void trak_filter_pass(struct trak_blkdev *dev, struct bio *bio)
{
	struct trak_filter *f = &dev->filter;
	int rc;

	if (list_empty(&f->snaps) || !bio_sectors(bio)) {
		bio_set_dev(bio, f->hdd_bdev);
		submit_bio_noacct(bio);
		return;
	}
	rc = trak_route_filter_with_snaps(dev, bio);
	if (rc < 0) {
		bio->bi_status = errno_to_blk_status(rc);
		bio_endio(bio);
	}
}

/*
 * A snap's start asks only whether any request came since it cleared the
 * count: once the count is set, leave its cache line alone.
 */
static void trak_count_request(struct trak_filter *f)
{
	if (!atomic_read(&f->io_cnt))
		atomic_inc(&f->io_cnt);
}

/* Marks a write's extents, then passes it on, unless it must wait. */
static void trak_route_filter(struct trak_blkdev *dev, struct bio *bio)
{
	struct trak_filter *f = &dev->filter;

	oxread_lock(&f->io_lock);
	trak_count_request(f);
	if (!op_is_write(bio_op(bio)) || !trak_guard_write(dev, bio))
		trak_filter_pass(dev, bio);
	oxread_unlock(&f->io_lock);
}

/*
 * Sends on the writes that waited for their dirty marks.  Each counts as a
 * request routed under io_lock, like a new one: a snapshot's start waits
 * for a moment without any.
 */
void trak_filter_release(struct trak_blkdev *dev, struct bio_list *bios)
{
	struct trak_filter *f = &dev->filter;
	struct bio *bio;

	if (bio_list_empty(bios))
		return;
	oxread_lock(&f->io_lock);
	while ((bio = bio_list_pop(bios))) {
		trak_count_request(f);
		trak_filter_pass(dev, bio);
	}
	oxread_unlock(&f->io_lock);
}

/*
 * The node's record is reached through its disk, without the registry lock:
 * a record outlives every request of its disk, since a node is destroyed
 * only after its disk is gone.  So I/O through one node never waits for a
 * command that holds the registry, even when that command's own files live
 * on another node.
 */
void trak_make_request(struct bio *bio)
{
	struct gendisk *disk = bio->bi_bdev->bd_disk;
	struct trak_blkdev *dev = disk->private_data;
	int minor = disk->first_minor;
	int rc = 0;

	bio = bio_split_to_limits(bio);
	if (!bio)
		return;

	trak_log(4, "%s(): minor=%d, sector=%lld, sectors=%d, rw=%d",
		 __func__, minor,
		 (long long)bio->bi_iter.bi_sector, bio_sectors(bio),
		 op_is_write(bio_op(bio)));

	if (!dev) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Nothing is known about TRAK device with minor=%d",
			 __func__, minor);
		rc = -EINVAL;
	} else if (!READ_ONCE(dev->started)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): I/O request for trak(%d, %d), which is in STOPPED state.",
			 __func__, trak_blk_major, minor);
		rc = -EIO;
	} else if (dev->dev_type == TRAK_DEV_FILTER) {
		trak_route_filter(dev, bio);
	} else if (dev->dev_type == TRAK_DEV_SNAP) {
		rc = trak_route_snap(dev, bio);
	} else {
		/* Never leave a bio hanging. */
		rc = -EIO;
	}

	if (rc < 0) {
		bio->bi_status = errno_to_blk_status(rc);
		bio_endio(bio);
	}
}
