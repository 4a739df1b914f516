// SPDX-License-Identifier: GPL-2.0
/*
 * Request routing: every bio addressed to a trak node enters here.  A write
 * through a filter node sets the bits of the extents it touches in both
 * change bitmaps before it is passed on to the partition below.
 */
#include <linux/atomic.h>
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/bitops.h>

#include "bitmap.h"
#include "block/registry.h"
#include "core/log.h"
#include "core/params.h"
#include "kdirtyd.h"
#include "router.h"

/*
 * Sets the bits of extents first..last; true when one of them was clear
 * and the bitmap's dirty flag was raised by this call.  Bits that are set
 * already are only read, so that the steady state costs no atomics.
 */
static bool trak_mark_bitmap(unsigned long *bmp, int *dirty,
			     unsigned long first, unsigned long last)
{
	bool changed = false;
	unsigned long e;

	for (e = first; e <= last; e++) {
		if (!test_bit(e, bmp) && !test_and_set_bit(e, bmp))
			changed = true;
	}
	return changed && !READ_ONCE(*dirty) && !cmpxchg(dirty, 0, 1);
}

static void trak_mark_extents(struct trak_blkdev *dev, sector_t sector,
			      unsigned int sectors)
{
	struct trak_filter *f = &dev->filter;
	unsigned int shift = f->extent_shift - SECTOR_SHIFT;
	unsigned long first = sector >> shift;
	unsigned long last = (sector + sectors - 1) >> shift;

	if (f->incr_bmp &&
	    trak_mark_bitmap(f->incr_bmp, &f->incr_bmp_dirty, first, last))
		trak_sched_write_dirty_flag(dev, TRAK_BMP_INCR);
	if (f->diff_bmp &&
	    trak_mark_bitmap(f->diff_bmp, &f->diff_bmp_dirty, first, last))
		trak_sched_write_dirty_flag(dev, TRAK_BMP_DIFF);
}

static void trak_route_filter(struct trak_blkdev *dev, struct bio *bio)
{
	struct trak_filter *f = &dev->filter;
	unsigned int sectors = bio_sectors(bio);

	oxread_lock(&f->io_lock);
	atomic_inc(&f->io_cnt);

	if (op_is_write(bio_op(bio)) && sectors)
		trak_mark_extents(dev, bio->bi_iter.bi_sector, sectors);

	bio_set_dev(bio, f->hdd_bdev);
	submit_bio_noacct(bio);

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
	} else {
		/* Nothing else routes I/O yet: never leave a bio hanging. */
		rc = -EIO;
	}

	if (rc < 0) {
		bio->bi_status = errno_to_blk_status(rc);
		bio_endio(bio);
	}
}
