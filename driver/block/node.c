// SPDX-License-Identifier: GPL-2.0
/*
 * Removing nodes.  A node goes only when stopped and closed; its change
 * bitmap files stay on disk for its next life.
 */
#include <linux/blkdev.h>
#include <linux/slab.h>
#include <linux/vmalloc.h>

#include "control/proc.h"
#include "core/log.h"
#include "core/params.h"
#include "disk.h"
#include "filter/kdirtyd.h"
#include "lifecycle.h"
#include "node.h"
#include "registry.h"
#include "snap/snap_node.h"
#include "util/bdev.h"
#include "util/devnode.h"
#include "util/unlink_batch.h"

/* DEL_NODE of an unknown minor answers +22: agents rely on the positive value. */
#define TRAK_DEL_UNKNOWN	EINVAL

/*
 * When a node going away says that it is still waiting for its dirty-flag
 * writes; it waits on after that, since they use its record.
 */
#define TRAK_DIRTY_WAIT_SECONDS	10

/* The device file, the /proc directory and the disk of a node go. */
void trak_node_take_down(struct trak_blkdev *dev)
{
	if (dev->dev_name[0])
		trak_unlink(dev->dev_name);
	trak_proc_del_device(dev);
	if (dev->dev_type == TRAK_DEV_FILTER) {
		vfree(dev->filter.incr_bmp);
		vfree(dev->filter.diff_bmp);
		trak_close_bdev(dev->filter.hdd_bdev,
				FMODE_READ | FMODE_WRITE | FMODE_EXCL);
	}
	trak_disk_destroy(dev);
}

/* Frees a node taken down, and its slot.  With the registry write-locked. */
void trak_node_free(struct trak_blkdev *dev)
{
	int minor = dev->minor;

	trak_blkdev_arr[minor] = NULL;
	kfree(dev);
	trak_log(3, "%s(): trak(%d, %d) has been destroyed successfully",
		 "trak_block_destroy_device", trak_blk_major, minor);
}

/* A filter goes with its snaps, first of all. */
static int trak_filter_destroy(struct trak_blkdev *dev,
			       struct trak_unlink_batch *cow_files)
{
	struct trak_filter *f = &dev->filter;
	struct trak_blkdev *snap;
	int rc;

	while ((snap = list_first_entry_or_null(&f->snaps, struct trak_blkdev,
						snap.snap_link))) {
		trak_log(3, "%s(): Deleting associated snap trak(%d, %d)",
			 "trak_block_destroy_device", trak_blk_major,
			 snap->minor);
		rc = trak_block_destroy_device(snap, cow_files);
		if (rc)
			return rc;
	}
	trak_cowqueue_destroy(&f->cowqueue);
	trak_aio_destroy(&f->aio);
	trak_yield_to_dirty_requests(dev, TRAK_DIRTY_WAIT_SECONDS);
	trak_node_take_down(dev);
	trak_node_free(dev);
	return 0;
}

/* Called with trak_blkdev_rwlock held for writing. */
int trak_block_destroy_device(struct trak_blkdev *dev,
			      struct trak_unlink_batch *cow_files)
{
	if (!dev) {
		trak_log(TRAK_LOG_ERR, "%s(): Internal error: dev==NULL",
			 __func__);
		return -EINVAL;
	}
	trak_log(1, "%s(): Destroying trak(%d, %d)", __func__, trak_blk_major,
		 dev->minor);
	if (dev->use_cnt) {
		trak_log(TRAK_LOG_ERR, "%s(): trak(%d, %d)is still being used.",
			 __func__, trak_blk_major, dev->minor);
		return -EBUSY;
	}
	if (dev->started && dev->dev_type == TRAK_DEV_SNAP &&
	    dev->snap.stop_pending) {
		dev->snap.del_pending = 1;
		trak_log(1, "%s(): STOP is pending for trak(%d, %d). Postponing delete as well.",
			 __func__, trak_blk_major, dev->minor);
		return 0;
	}
	if (dev->started) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Can't destroy started trak(%d, %d). Stop it first!",
			 __func__, trak_blk_major, dev->minor);
		return -EBUSY;
	}

	if (dev->dev_type == TRAK_DEV_SNAP)
		return trak_snap_destroy(dev, cow_files);
	return trak_filter_destroy(dev, cow_files);
}

int trak_ioctl_del_node(struct trak_minor_args *rec)
{
	TRAK_UNLINK_BATCH(cow_files);
	struct trak_blkdev *dev;
	int rc;

	trak_log(1, "%s(): Removing trak(%d, %d)", __func__, trak_blk_major,
		 rec->minor);

	oxread_lock(&trak_blkdev_rwlock);
	dev = trak_blkdev_find(rec->minor);
	rc = dev ? trak_block_stop_device(dev) : TRAK_DEL_UNKNOWN;
	oxread_unlock(&trak_blkdev_rwlock);
	if (rc)
		goto out;

	oxwrite_lock(&trak_blkdev_rwlock);
	dev = trak_blkdev_find(rec->minor);
	rc = dev ? trak_block_destroy_device(dev, &cow_files) :
		TRAK_DEL_UNKNOWN;
	oxwrite_unlock(&trak_blkdev_rwlock);
	trak_unlink_batch_run(&cow_files);
out:
	if (rc == TRAK_DEL_UNKNOWN)
		trak_log(TRAK_LOG_ERR, "%s(): Nothing is known about trak(%d, %d)",
			 __func__, trak_blk_major, rec->minor);
	return rc;
}
