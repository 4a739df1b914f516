// SPDX-License-Identifier: GPL-2.0
/*
 * Snap nodes: adding one to a filter, resuming one that an earlier life of
 * the driver left in its COW files, and taking one away.
 */
#include <linux/blkdev.h>
#include <linux/log2.h>
#include <linux/slab.h>

#include "block/disk.h"
#include "block/lifecycle.h"
#include "block/node.h"
#include "block/registry.h"
#include "control/proc.h"
#include "core/log.h"
#include "core/params.h"
#include "snap_lifecycle.h"
#include "snap_node.h"
#include "util/devnode.h"
#include "util/stack.h"
#include "util/unlink_batch.h"

/* 2^30 chunks at most: larger volumes get larger chunks. */
#define TRAK_MAX_SNAP_CHUNKS	0x40000000ULL
#define TRAK_MIN_CHUNK_SIZE	4096

/* How many devices under a COW file system are looked at, at most. */
#define TRAK_MAX_STACKED_DEVS	256

/* What @devt stands on: a filter node's partition, or what sysfs shows. */
static int trak_devices_under(dev_t devt, dev_t *lower, int max)
{
	struct trak_blkdev *dev;
	int cnt = 0;

	if (MAJOR(devt) != trak_blk_major)
		return trak_lower_devices(devt, lower, max);
	oxread_lock(&trak_blkdev_rwlock);
	dev = trak_blkdev_find(MINOR(devt));
	if (dev && dev->dev_type == TRAK_DEV_FILTER && max > 0) {
		lower[0] = dev->filter.hdd_dev;
		cnt = 1;
	}
	oxread_unlock(&trak_blkdev_rwlock);
	return cnt;
}

/*
 * Whether the file system on @devt is on the filter node @filter_minor,
 * directly or through devices stacked on it (device-mapper, md, a loop
 * device over the node or over a file on it, another filter node): kcowd's
 * writes to a COW file there would come back to the filter it serves.
 */
static int trak_on_snapped_partition(dev_t devt, u32 filter_minor,
				     bool *on_it, const char *func)
{
	dev_t snapped = MKDEV(trak_blk_major, filter_minor);
	dev_t *devs;
	int cnt = 1, i;

	devs = kmalloc_array(TRAK_MAX_STACKED_DEVS, sizeof(*devs), GFP_KERNEL);
	if (!devs) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failure", func);
		return -ENOMEM;
	}
	devs[0] = devt;
	*on_it = false;
	for (i = 0; i < cnt; i++) {
		if (devs[i] == snapped) {
			*on_it = true;
			break;
		}
		cnt += trak_devices_under(devs[i], devs + cnt,
					  TRAK_MAX_STACKED_DEVS - cnt);
	}
	kfree(devs);
	return 0;
}

/* COW files must be on a file system with a device, and not the snapped one. */
static int trak_check_cow_file(const char *fname, u32 filter_minor,
			       const char *func)
{
	dev_t devt = trak_get_file_devt(fname);
	bool on_it;
	int rc;

	if (devt <= MINORMASK) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to get ID of the device with %s",
			 func, fname);
		return -EINVAL;
	}
	rc = trak_on_snapped_partition(devt, filter_minor, &on_it, func);
	if (rc)
		return rc;
	if (on_it) {
		trak_log(TRAK_LOG_ERR, "%s(): File %s can't be on the partition being snapped!",
			 func, fname);
		return -EINVAL;
	}
	return 0;
}

static struct trak_blkdev *trak_snap_filter_of(u32 filter_minor,
					       const char *func)
{
	struct trak_blkdev *filter = NULL;

	if (filter_minor <= trak_max_blk_minor)
		filter = trak_blkdev_find(filter_minor);
	if (filter && filter->dev_type == TRAK_DEV_FILTER)
		return filter;
	trak_log(TRAK_LOG_ERR, "%s(): Invalid filter node minor number %d passed.",
		 func, filter_minor);
	return NULL;
}

static int trak_check_chunk_size(u32 chunk_size, const char *func)
{
	if (!is_power_of_2(chunk_size)) {
		trak_log(TRAK_LOG_ERR, "%s(): Chunk size must be a power of 2",
			 func);
		return -EINVAL;
	}
	if (chunk_size % TRAK_MIN_CHUNK_SIZE) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Chunk size must be a multiple of page size (%dB)",
			 func, TRAK_MIN_CHUNK_SIZE);
		return -EINVAL;
	}
	if (chunk_size < TRAK_MIN_CHUNK_SIZE) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Chunk size can't be smaller than page size (%dB)",
			 func, TRAK_MIN_CHUNK_SIZE);
		return -EINVAL;
	}
	return 0;
}

static int trak_check_snap_count(struct trak_blkdev *filter, const char *func)
{
	struct trak_blkdev *snap;
	int cnt = 0;

	list_for_each_entry(snap, &filter->filter.snaps, snap.snap_link)
		cnt++;
	if (cnt < TRAK_MAX_LISTED)
		return 0;
	trak_log(TRAK_LOG_ERR,
		 "%s(): Too many snaps already associated with trak(%d, %d).",
		 func, trak_blk_major, filter->minor);
	return -ENOSPC;
}

/* All snaps of a filter copy chunks of one size: they share COW groups. */
static int trak_check_same_chunk_size(struct trak_blkdev *filter,
				      u32 chunk_size, const char *func)
{
	struct trak_blkdev *snap;

	snap = list_first_entry_or_null(&filter->filter.snaps,
					struct trak_blkdev, snap.snap_link);
	if (!snap || snap->snap.chunk_size == chunk_size)
		return 0;
	trak_log(TRAK_LOG_ERR,
		 "%s(): trak(%d, %d) already has one snap with chunk size %d. All snaps must have identical chunk sizes.",
		 func, trak_blk_major, filter->minor, snap->snap.chunk_size);
	return -EINVAL;
}

/* Doubles the chunk size until the volume has at most 2^30 chunks. */
static int trak_fit_chunk_size(u32 *chunk_size, u64 dev_size,
			       const char *func)
{
	u32 asked = *chunk_size;

	while (dev_size > (u64)*chunk_size * TRAK_MAX_SNAP_CHUNKS)
		*chunk_size <<= 1;
	if (*chunk_size == asked)
		return 0;
	trak_log(TRAK_LOG_ERR, "%s(): Chunk size %d is too small for such a large volume %lld",
		 func, asked, dev_size);
	trak_log(TRAK_LOG_ERR, "%s(): We have automatically increased it to %d",
		 func, *chunk_size);
	return 0;
}

/*
 * kcowd copies whole chunks within one group of pages: a chunk larger than
 * the group would make a group that holds no chunk at all.
 */
static int trak_check_chunk_fits_group(u32 chunk_size, const char *func)
{
	if (chunk_size <= TRAK_COW_GROUP_BYTES)
		return 0;
	trak_log(TRAK_LOG_ERR,
		 "%s(): Chunk size %d is larger than a COW group (%d bytes).",
		 func, chunk_size, TRAK_COW_GROUP_BYTES);
	return -EINVAL;
}

static void trak_fill_snap(struct trak_blkdev *dev, struct trak_blkdev *filter,
			   struct trak_add_snap_args *rec)
{
	struct trak_snap *s = &dev->snap;
	u64 dev_size = filter->filter.dev_size;

	dev->dev_type = TRAK_DEV_SNAP;
	oxmutex_init(&dev->lock);
	dev->minor = rec->snap_minor;
	strscpy(dev->uuid, rec->uuid, sizeof(dev->uuid));
	strscpy(dev->name, rec->name, sizeof(dev->name));

	s->filter_minor = filter->minor;
	s->snap_minor = rec->snap_minor;
	s->chunk_size = rec->chunk_size;
	s->chunk_shift = ilog2(rec->chunk_size);
	s->cow_chunks = ((dev_size - 1) >> s->chunk_shift) + 1;
	s->cow_bmp_size = (((dev_size - 1) >> s->chunk_shift) >> 3) + 1;
	s->cow_data_size = s->cow_chunks << s->chunk_shift;
	s->filter = filter;
	strscpy(s->cow_data_fname, rec->cow_data_fname,
		sizeof(s->cow_data_fname));
	strscpy(s->cow_bmp_fname, rec->cow_bmp_fname, sizeof(s->cow_bmp_fname));
}

/* Called with trak_blkdev_rwlock held for writing. */
static int trak_add_snap_locked(struct trak_add_snap_args *rec,
				const char *func)
{
	struct trak_blkdev *filter, *dev;
	int rc;

	filter = trak_snap_filter_of(rec->filter_minor, func);
	if (!filter)
		return -EINVAL;
	rc = trak_check_snap_count(filter, func);
	if (!rc)
		rc = trak_check_chunk_size(rec->chunk_size, func);
	if (!rc)
		rc = trak_check_same_chunk_size(filter, rec->chunk_size, func);
	if (!rc)
		rc = trak_fit_chunk_size(&rec->chunk_size,
					 filter->filter.dev_size, func);
	if (!rc)
		rc = trak_check_chunk_fits_group(rec->chunk_size, func);
	if (rc)
		return rc;

	dev = kzalloc(sizeof(*dev), GFP_KERNEL);
	if (!dev) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failure", func);
		return -ENOMEM;
	}
	rc = trak_blkdev_choose_minor(&rec->snap_minor, func);
	if (rc)
		goto fail;
	if (!rec->name[0])
		snprintf(rec->name, sizeof(rec->name), "trak%d",
			 rec->snap_minor);
	trak_log(1, "%s(): Attaching snap trak(%d, %d) to filter trak(%d, %d)",
		 func, trak_blk_major, rec->snap_minor, trak_blk_major,
		 filter->minor);
	trak_fill_snap(dev, filter, rec);

	rc = trak_disk_create(dev, filter->filter.hdd_bdev,
			      filter->filter.dev_size);
	if (rc)
		goto fail;
	set_disk_ro(dev->disk, true);
	/* Nothing is cached for a snap: flushes end before they reach it. */
	blk_queue_write_cache(dev->disk->queue, false, false);
	trak_blkdev_arr[dev->minor] = dev;
	oxwrite_lock(&filter->filter.io_lock);
	list_add_tail(&dev->snap.snap_link, &filter->filter.snaps);
	oxwrite_unlock(&filter->filter.io_lock);
	trak_proc_add_device(dev);
	trak_disk_make_dev_file(dev);
	return 0;
fail:
	kfree(dev);
	return rc;
}

int trak_ioctl_add_snap_node(struct trak_add_snap_args *rec)
{
	int rc;

	rec->cow_bmp_fname[sizeof(rec->cow_bmp_fname) - 1] = '\0';
	rec->cow_data_fname[sizeof(rec->cow_data_fname) - 1] = '\0';
	rec->uuid[sizeof(rec->uuid) - 1] = '\0';
	rec->name[sizeof(rec->name) - 1] = '\0';
	trak_log(1, "%s(): Creating new snap node: snap_minor=%d, trak_minor=%d, chunk_size=%d, cow_bmp_fname=%s, cow_data_fname=%s",
		 __func__, rec->snap_minor, rec->filter_minor, rec->chunk_size,
		 rec->cow_bmp_fname, rec->cow_data_fname);

	rc = trak_check_cow_file(rec->cow_bmp_fname, rec->filter_minor,
				 __func__);
	if (!rc)
		rc = trak_check_cow_file(rec->cow_data_fname,
					 rec->filter_minor, __func__);
	if (rc)
		return rc;
	if (!rec->uuid[0])
		trak_uuid_generate(rec->uuid);

	oxwrite_lock(&trak_blkdev_rwlock);
	rc = trak_add_snap_locked(rec, __func__);
	oxwrite_unlock(&trak_blkdev_rwlock);
	return rc;
}

/* The snap @minor names, with the resume's refusals. */
static struct trak_blkdev *trak_resumable_snap(u32 minor, int *rc)
{
	struct trak_blkdev *dev = NULL;

	if (minor <= trak_max_blk_minor)
		dev = trak_blkdev_find(minor);
	if (!dev) {
		trak_log(TRAK_LOG_ERR, "%s(): Nothing is known about trak(%d, %d)",
			 "trak_ioctl_resume_snap", trak_blk_major, minor);
		*rc = -EINVAL;
	} else if (dev->dev_type != TRAK_DEV_SNAP) {
		trak_log(TRAK_LOG_ERR, "%s(): trak(%d, %d) is not a snap device",
			 "trak_ioctl_resume_snap", trak_blk_major, minor);
		*rc = -EINVAL;
	} else if (dev->started) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Can't resume snap trak(%d, %d): it's been started already.",
			 "trak_ioctl_resume_snap", trak_blk_major, minor);
		*rc = -EALREADY;
	} else {
		return dev;
	}
	return NULL;
}

int trak_ioctl_resume_snap(struct trak_resume_snap_args *rec)
{
	struct trak_blkdev *dev;
	int rc = 0;

	trak_log(1, "%s(): Resuming snap trak(%d, %d)", __func__,
		 trak_blk_major, rec->snap_minor);
	oxread_lock(&trak_blkdev_rwlock);
	dev = trak_resumable_snap(rec->snap_minor, &rc);
	if (dev)
		rc = trak_snap_resume(dev, rec);
	if (!rc)
		trak_snap_map_data_blocks(dev);
	oxread_unlock(&trak_blkdev_rwlock);
	if (!rc)
		trak_log(1, "%s(): trak(%d, %d) has been resumed successfully",
			 __func__, trak_blk_major, rec->snap_minor);
	return rc;
}

/* The first snap of @filter whose delete waited, and may happen now. */
static struct trak_blkdev *trak_snap_postponed_delete(struct trak_blkdev *filter)
{
	struct trak_blkdev *snap;

	list_for_each_entry(snap, &filter->filter.snaps, snap.snap_link) {
		if (snap->snap.del_pending && !snap->started)
			return snap;
	}
	return NULL;
}

/* Takes a stopped snap away; its COW files go to @cow_files, if any. */
static void trak_snap_destroy_one(struct trak_blkdev *dev,
				  struct trak_unlink_batch *cow_files)
{
	struct trak_blkdev *filter = dev->snap.filter;

	if (cow_files) {
		trak_unlink_later(cow_files, dev->snap.cow_data_fname);
		trak_unlink_later(cow_files, dev->snap.cow_bmp_fname);
	}
	oxwrite_lock(&filter->filter.io_lock);
	list_del(&dev->snap.snap_link);
	oxwrite_unlock(&filter->filter.io_lock);
	trak_node_take_down(dev);
	trak_node_free(dev);
}

/*
 * Takes a stopped snap away; then every DEFUNCT snap whose delete waited
 * for an older snap's stop, and is stopped by now, follows.  Called with
 * trak_blkdev_rwlock held for writing.
 */
int trak_snap_destroy(struct trak_blkdev *dev,
		      struct trak_unlink_batch *cow_files)
{
	struct trak_blkdev *filter = dev->snap.filter;

	trak_snap_destroy_one(dev, cow_files);
	while ((dev = trak_snap_postponed_delete(filter))) {
		trak_log(1, "%s(): Destroying trak(%d, %d)",
			 "trak_block_destroy_device", trak_blk_major, dev->minor);
		trak_snap_destroy_one(dev, cow_files);
	}
	return 0;
}
