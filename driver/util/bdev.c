// SPDX-License-Identifier: GPL-2.0
/* Opening partitions by device number, and asking whether they are mounted. */
#include <linux/blkdev.h>
#include <linux/err.h>

#include "bdev.h"

/* @holder is needed with FMODE_EXCL only. */
struct block_device *trak_open_bdev(dev_t dev, fmode_t mode, void *holder)
{
	struct block_device *bdev = blkdev_get_by_dev(dev, mode, holder);

	return IS_ERR(bdev) ? NULL : bdev;
}

/* Accepts NULL, for callers that close whatever an open gave them. */
void trak_close_bdev(struct block_device *bdev, fmode_t mode)
{
	if (bdev)
		blkdev_put(bdev, mode);
}

int trak_is_mounted(struct block_device *bdev)
{
	return READ_ONCE(bdev->bd_super) != NULL;
}
