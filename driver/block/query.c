// SPDX-License-Identifier: GPL-2.0
/*
 * Read-only queries over the registry: the minors of all nodes of a type,
 * and the state of one node.
 */
#include <linux/bitmap.h>
#include <linux/string.h>

#include "core/log.h"
#include "core/params.h"
#include "query.h"
#include "registry.h"

int trak_ioctl_get_device_list(struct trak_device_list_args *rec)
{
	struct trak_blkdev *dev;
	int minor;

	if (rec->dev_type != TRAK_DEV_FILTER && rec->dev_type != TRAK_DEV_SNAP) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Invalid device type 0x%02x passed as input.",
			 __func__, rec->dev_type);
		return -EINVAL;
	}
	trak_log(2, "%s(): Returning the list of %s devices.", __func__,
		 rec->dev_type == TRAK_DEV_FILTER ? "FILTER" : "SNAP");

	oxread_lock(&trak_blkdev_rwlock);
	rec->count = 0;
	/* The highest minor is never listed; agents rely on this bound. */
	for (minor = 0; minor < trak_max_blk_minor; minor++) {
		dev = trak_blkdev_arr[minor];
		if (dev && dev->dev_type == rec->dev_type &&
		    rec->count < TRAK_MAX_LISTED)
			rec->minors[rec->count++] = minor;
	}
	oxread_unlock(&trak_blkdev_rwlock);
	return 0;
}

static void trak_info_filter(const struct trak_filter *f,
			     struct trak_info_args *rec)
{
	const struct trak_blkdev *snap;

	rec->dev_size = f->dev_size;
	strscpy(rec->hdd_name, f->hdd_name, sizeof(rec->hdd_name));
	rec->extent_size = f->extent_size;
	rec->extent_cnt = f->extent_cnt;

	rec->snap_cnt = 0;
	list_for_each_entry(snap, &f->snaps, snap.snap_link) {
		if (rec->snap_cnt == TRAK_MAX_LISTED)
			break;
		rec->snap_minors[rec->snap_cnt++] = snap->minor;
	}

	rec->incr_bmp_size = f->incr_bmp_size;
	rec->diff_bmp_size = f->diff_bmp_size;
	strscpy(rec->incr_bmp_fname, f->incr_bmp_fname,
		sizeof(rec->incr_bmp_fname));
	strscpy(rec->diff_bmp_fname, f->diff_bmp_fname,
		sizeof(rec->diff_bmp_fname));

	/* Only the extent_cnt bits in use count; bits past them are ignored. */
	if (f->incr_bmp) {
		rec->incr_bmp_clear = bitmap_empty(f->incr_bmp, f->extent_cnt);
		rec->incr_bmp_full = bitmap_full(f->incr_bmp, f->extent_cnt);
	}
	if (f->diff_bmp) {
		rec->diff_bmp_clear = bitmap_empty(f->diff_bmp, f->extent_cnt);
		rec->diff_bmp_full = bitmap_full(f->diff_bmp, f->extent_cnt);
	}
}

static int trak_info_snap(const struct trak_blkdev *dev,
			  struct trak_info_args *rec)
{
	const struct trak_snap *s = &dev->snap;

	if (!s->filter || s->filter->dev_type != TRAK_DEV_FILTER) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Snap device trak(%d, %d) is not attached to a filter device.",
			 __func__, trak_blk_major, s->filter_minor);
		return -EINVAL;
	}
	rec->dev_size = s->filter->filter.dev_size;
	rec->snap_valid = s->snap_valid;
	rec->stop_pending = s->stop_pending;
	rec->del_pending = s->del_pending;
	rec->chunk_size = s->chunk_size;
	rec->cow_chunks = s->cow_chunks;
	rec->cow_bmp_size = s->cow_bmp_size;
	rec->cow_data_size = s->cow_data_size;
	strscpy(rec->cow_bmp_fname, s->cow_bmp_fname,
		sizeof(rec->cow_bmp_fname));
	strscpy(rec->cow_data_fname, s->cow_data_fname,
		sizeof(rec->cow_data_fname));
	return 0;
}

/* Called by the dispatcher with trak_blkdev_rwlock held for reading. */
int trak_ioctl_get_info(struct trak_blkdev *dev, struct trak_info_args *rec)
{
	trak_log(2, "%s(): Getting info on trak(%d, %d)", __func__,
		 trak_blk_major, dev->minor);

	rec->dev_type = dev->dev_type;
	rec->started = dev->started;
	rec->use_cnt = dev->use_cnt;
	strscpy(rec->uuid, dev->uuid, sizeof(rec->uuid));
	strscpy(rec->name, dev->name, sizeof(rec->name));

	switch (dev->dev_type) {
	case TRAK_DEV_FILTER:
		trak_info_filter(&dev->filter, rec);
		return 0;
	case TRAK_DEV_SNAP:
		return trak_info_snap(dev, rec);
	default:
		return 0;
	}
}
