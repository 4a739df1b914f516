// SPDX-License-Identifier: GPL-2.0
/*
 * The data-block commands of the control device.  Kernel only: the shared
 * logic they run lives beside them.
 */
#include <linux/blkdev.h>
#include <linux/log2.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>

#include "blkbmp_test.h"
#include "block/registry.h"
#include "core/log.h"
#include "core/params.h"
#include "datablock_commands.h"
#include "util/bdev.h"
#include "util/devnode.h"

/* Runs the data-block self-test on an unmounted partition. */
int trak_ioctl_test_datablock(struct trak_test_datablock_args *rec)
{
	struct block_device *bdev;
	dev_t devt;
	int rc;

	rec->hdd_name[sizeof(rec->hdd_name) - 1] = '\0';
	trak_log(1, "%s(): Testing datablocks on %s", __func__, rec->hdd_name);
	if (!rec->hdd_name[0]) {
		trak_log(TRAK_LOG_ERR, "%s(): Empty HDD name passed as input.",
			 __func__);
		return -EINVAL;
	}
	rc = trak_get_bdev_devt(rec->hdd_name, __func__, &devt);
	if (rc)
		return rc;

	bdev = trak_open_bdev(devt, FMODE_READ, NULL);
	if (!bdev) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to open %s", __func__,
			 rec->hdd_name);
		return -EIO;
	}
	if (trak_is_mounted(bdev)) {
		trak_log(TRAK_LOG_ERR, "%s(): Can't test mounted HDD device %s",
			 __func__, rec->hdd_name);
		rc = -EBUSY;
	} else {
		rc = trak_blkbmp_test(bdev);
	}
	trak_close_bdev(bdev, FMODE_READ);
	return rc;
}

static int trak_check_datablock_request(struct trak_blkdev *dev,
					struct trak_datablock_bmp_args *rec,
					const char *func)
{
	if (dev->dev_type != TRAK_DEV_SNAP) {
		trak_log(TRAK_LOG_ERR, "%s(): trak(%d, %d) is not a snap device",
			 func, trak_blk_major, dev->minor);
		return -EINVAL;
	}
	if (!dev->started) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Snap device trak(%d, %d) has not been started yet",
			 func, trak_blk_major, dev->minor);
		return -EINVAL;
	}
	if (!rec->bmp_data) {
		trak_log(TRAK_LOG_ERR, "%s(): NULL bitmap data pointer passed as input",
			 func);
		return -EINVAL;
	}
	if (rec->extent_size < 2 || !is_power_of_2(rec->extent_size)) {
		trak_log(TRAK_LOG_ERR, "%s(): Extent size (%d) must have been a power of 2.",
			 func, rec->extent_size);
		return -EINVAL;
	}
	if (dev->snap.chunk_size > rec->extent_size) {
		trak_log(TRAK_LOG_ERR, "%s(): Extent size (%d) must be bigger than chunk size (%d).",
			 func, rec->extent_size, dev->snap.chunk_size);
		return -EINVAL;
	}
	return 0;
}

/*
 * Exports a started snap's data-block map, one bit per extent of the
 * agent's size.  The dispatcher holds the registry lock for reading; the
 * filter's io_lock keeps the map from being replaced during the copy.
 */
int trak_ioctl_get_datablock_bmp(struct trak_blkdev *dev,
				 struct trak_datablock_bmp_args *rec)
{
	const struct trak_blkbmp *map = &dev->snap.datablock_bmp;
	struct oxrwlock *io_lock;
	s32 k, needed;
	u64 *buf;
	int rc;

	trak_log(1, "%s(): Returning datablock bitmap of trak(%d, %d)",
		 __func__, trak_blk_major, dev->minor);
	rc = trak_check_datablock_request(dev, rec, __func__);
	if (rc)
		return rc;

	io_lock = &dev->snap.filter->filter.io_lock;
	oxread_lock(io_lock);
	k = rec->extent_size / dev->snap.chunk_size;
	needed = DIV_ROUND_UP(DIV_ROUND_UP(map->chunks, k), 8);
	if (rec->bmp_size < needed) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Bitmap buffer is not large enough: should be %dB instead of %dB.",
			 __func__, needed, rec->bmp_size);
		rc = -EINVAL;
		goto out_unlock;
	}
	buf = needed ? vmalloc(needed) : NULL;
	if (!buf) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to allocated %d bytes of memory",
			 __func__, needed);
		rc = -ENOMEM;
		goto out_unlock;
	}
	rc = trak_blkbmp_export(map, k, buf, needed);
	oxread_unlock(io_lock);
	if (!rc && copy_to_user(u64_to_user_ptr(rec->bmp_data), buf, needed)) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to copyout the bitmap",
			 __func__);
		rc = -EFAULT;
	}
	if (!rc)
		rec->bmp_size = needed;
	vfree(buf);
	return rc;

out_unlock:
	oxread_unlock(io_lock);
	return rc;
}
