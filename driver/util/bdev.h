/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_UTIL_BDEV_H
#define TRAK_UTIL_BDEV_H

#include <linux/blkdev.h>

struct block_device *trak_open_bdev(dev_t dev, fmode_t mode, void *holder);
void trak_close_bdev(struct block_device *bdev, fmode_t mode);
int trak_is_mounted(struct block_device *bdev);

#endif
