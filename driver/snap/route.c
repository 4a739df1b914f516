// SPDX-License-Identifier: GPL-2.0
/* The request path of filters with snaps, and of snaps. */
#include <linux/bio.h>
#include <linux/blkdev.h>

#include "core/log.h"
#include "core/params.h"
#include "route.h"
#include "snaps.h"

/*
 * A COW thread's own requests (its COW files may live on another node)
 * must not wait for memory that only its progress frees.
 */
static gfp_t trak_route_gfp(void)
{
	return trak_current_is_cowthread() ? GFP_ATOMIC : GFP_NOIO;
}

static int trak_route_hold(struct trak_blkdev *filter, struct bio *bio,
			   gfp_t gfp)
{
	return trak_cowqueue_append(&filter->filter.cowqueue,
				    trak_snap_stamp(filter), bio, gfp);
}

int trak_route_filter_with_snaps(struct trak_blkdev *filter, struct bio *bio)
{
	struct trak_filter *f = &filter->filter;
	gfp_t gfp = trak_route_gfp();
	struct bio *clone;

	if (op_is_write(bio_op(bio)))
		trak_snap_note_origin_write(filter);
	/* While no COW thread runs, an overlapping request is waited for. */
	clone = trak_aio_clone(&f->aio, bio, f->hdd_bdev,
			       !trak_cowthread_running(&f->cowthread), gfp);
	if (!clone)
		return trak_route_hold(filter, bio, gfp);
	if (op_is_write(bio_op(bio)) &&
	    (trak_cowqueue_find_overlap_req(&f->cowqueue, 1, 1, bio) ||
	     trak_snap_write_needs_cow(filter, bio->bi_iter.bi_sector,
				       bio_end_sector(bio) - 1))) {
		/* Untracked first: the COW thread may wait for this range. */
		trak_aio_drop(clone);
		return trak_route_hold(filter, bio, gfp);
	}
	submit_bio_noacct(clone);
	return 0;
}

static int trak_route_snap_read(struct trak_blkdev *snap, struct bio *bio)
{
	struct trak_blkdev *filter = snap->snap.filter;
	struct trak_filter *f = &filter->filter;
	u32 shift = snap->snap.chunk_shift - SECTOR_SHIFT;
	gfp_t gfp = trak_route_gfp();
	struct bio *clone;

	if (!bio_sectors(bio)) {
		bio_set_dev(bio, f->hdd_bdev);
		submit_bio_noacct(bio);
		return 0;
	}
	clone = trak_aio_clone(&f->aio, bio, f->hdd_bdev, false, gfp);
	if (!clone)
		return trak_route_hold(filter, bio, gfp);
	if (trak_cowqueue_find_overlap_req(&f->cowqueue, 0, 1, bio) ||
	    trak_snap_any_kept(snap, bio->bi_iter.bi_sector >> shift,
			       (bio_end_sector(bio) - 1) >> shift)) {
		trak_aio_drop(clone);
		return trak_route_hold(filter, bio, gfp);
	}
	submit_bio_noacct(clone);
	return 0;
}

int trak_route_snap(struct trak_blkdev *snap, struct bio *bio)
{
	struct trak_blkdev *filter = snap->snap.filter;
	int rc;

	if (!filter || filter->dev_type != TRAK_DEV_FILTER) {
		trak_log(TRAK_LOG_ERR, "%s(): Request for unattached snap device trak(%d, %d)",
			 "trak_make_request", trak_blk_major, snap->minor);
		return -EINVAL;
	}

	oxread_lock(&filter->filter.io_lock);
	if (!trak_snap_readable(snap)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): I/O request for trak(%d, %d), which is in STOP_PENDING state or INVALID.",
			 "trak_make_request", trak_blk_major, snap->minor);
		rc = -EIO;
	} else if (op_is_write(bio_op(bio))) {
		trak_log(TRAK_LOG_ERR, "%s(): Write request to snap trak(%d, %d)",
			 "trak_make_request", trak_blk_major, snap->minor);
		rc = -EROFS;
	} else {
		rc = trak_route_snap_read(snap, bio);
	}
	oxread_unlock(&filter->filter.io_lock);
	return rc;
}
