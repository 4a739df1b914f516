// SPDX-License-Identifier: GPL-2.0
/*
 * Starting and stopping nodes, and opening and closing their block
 * devices.  A node can be opened only while started, and stopped only
 * while nobody has it open.
 */
#include <linux/blkdev.h>

#include "core/log.h"
#include "core/params.h"
#include "disk.h"
#include "filter/bitmap.h"
#include "lifecycle.h"
#include "registry.h"
#include "snap/snap_lifecycle.h"

int trak_block_start_device(struct trak_blkdev *dev)
{
	trak_log(1, "%s(): Starting trak(%d, %d)", __func__, trak_blk_major,
		 dev->minor);
	if (dev->dev_type == TRAK_DEV_SNAP)
		return trak_snap_start(dev);

	oxmutex_lock(&dev->lock);
	if (dev->started) {
		oxmutex_unlock(&dev->lock);
		trak_log(TRAK_LOG_ERR, "%s(): trak(%d, %d) has already been started",
			 __func__, trak_blk_major, dev->minor);
		return -EALREADY;
	}
	/* Tracking is done by the request path whenever a filter is started. */
	WRITE_ONCE(dev->started, 1);
	trak_log(3, "%s(): trak(%d, %d) has been started successfully",
		 __func__, trak_blk_major, dev->minor);
	oxmutex_unlock(&dev->lock);
	trak_disk_announce_change(dev);
	return 0;
}

/* Snaps stop first: the COW thread they need goes with the filter. */
static int trak_filter_stop(struct trak_blkdev *dev)
{
	int rc;

	rc = trak_filter_stop_snaps(dev);
	if (rc)
		return rc;
	trak_cowthread_shutdown(&dev->filter.cowthread);
	trak_block_save_dirty_bmps(dev);
	return 0;
}

int trak_block_stop_device(struct trak_blkdev *dev)
{
	int rc = 0;

	trak_log(2, "%s(): Stopping trak(%d, %d)", __func__, trak_blk_major,
		 dev->minor);
	if (dev->dev_type == TRAK_DEV_SNAP)
		return trak_snap_stop(dev);

	oxmutex_lock(&dev->lock);
	if (!dev->started)
		goto out;
	if (dev->use_cnt) {
		trak_log(TRAK_LOG_ERR, "%s(): trak(%d, %d) is still being used.",
			 __func__, trak_blk_major, dev->minor);
		rc = -EBUSY;
		goto out;
	}
	if (dev->dev_type == TRAK_DEV_FILTER)
		rc = trak_filter_stop(dev);
	if (rc)
		goto out;
	WRITE_ONCE(dev->started, 0);
	trak_log(3, "%s(): trak(%d, %d) has been stopped successfully",
		 __func__, trak_blk_major, dev->minor);
out:
	oxmutex_unlock(&dev->lock);
	return rc;
}

/* Start and stop look their node up themselves: any minor is accepted. */
static int trak_ioctl_on_node(int minor, const char *func,
			      int (*action)(struct trak_blkdev *dev))
{
	struct trak_blkdev *dev;
	int rc;

	oxread_lock(&trak_blkdev_rwlock);
	dev = trak_blkdev_find(minor);
	if (dev) {
		rc = action(dev);
	} else {
		trak_log(TRAK_LOG_ERR, "%s(): Nothing is known about trak(%d, %d)",
			 func, trak_blk_major, minor);
		rc = -EINVAL;
	}
	oxread_unlock(&trak_blkdev_rwlock);
	return rc;
}

int trak_ioctl_start_node(struct trak_minor_args *rec)
{
	trak_log(1, "%s(): Starting trak(%d, %d)", __func__, trak_blk_major,
		 rec->minor);
	return trak_ioctl_on_node(rec->minor, __func__,
				  trak_block_start_device);
}

int trak_ioctl_stop_node(struct trak_minor_args *rec)
{
	trak_log(1, "%s(): Stopping trak(%d, %d)", __func__, trak_blk_major,
		 rec->minor);
	return trak_ioctl_on_node(rec->minor, __func__,
				  trak_block_stop_device);
}

/*
 * Open and release run under the disk's open mutex, which a node's removal
 * takes too (del_gendisk) while it holds the registry: they reach the
 * record through the disk, which it outlives, not through the registry.
 */
static struct trak_blkdev *trak_block_dev_of(struct gendisk *disk,
					     const char *func)
{
	struct trak_blkdev *dev = disk->private_data;

	if (!dev)
		trak_log(TRAK_LOG_ERR, "%s(): Unable to find trak(%d, %d)",
			 func, trak_blk_major, disk->first_minor);
	return dev;
}

int trak_block_open(struct block_device *bdev, fmode_t mode)
{
	struct trak_blkdev *dev;
	int rc = 0;

	trak_log(2, "%s(): Opening trak(%d, %d)", __func__, trak_blk_major,
		 bdev->bd_disk->first_minor);
	dev = trak_block_dev_of(bdev->bd_disk, __func__);
	if (!dev)
		return -EINVAL;

	oxmutex_lock(&dev->lock);
	if (dev->started) {
		dev->use_cnt++;
		dev->bdev = bdev;
		trak_log(3, "%s(): bdev=%p", __func__, bdev);
	} else {
		trak_log(TRAK_LOG_ERR, "%s(): trak(%d, %d) hasn't been started yet.",
			 __func__, trak_blk_major, dev->minor);
		rc = -EIO;
	}
	oxmutex_unlock(&dev->lock);
	return rc;
}

/* The change bitmaps reach their files at every close of a filter. */
void trak_block_release(struct gendisk *disk, fmode_t mode)
{
	struct trak_blkdev *dev;

	trak_log(2, "%s(): Releasing trak(%d, %d)", __func__, trak_blk_major,
		 disk->first_minor);
	dev = trak_block_dev_of(disk, __func__);
	if (!dev)
		return;

	oxmutex_lock(&dev->lock);
	if (dev->dev_type == TRAK_DEV_FILTER)
		trak_block_save_dirty_bmps(dev);
	if (--dev->use_cnt == 0)
		dev->bdev = NULL;
	oxmutex_unlock(&dev->lock);
}
