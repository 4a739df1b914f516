/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_BLOCK_BLOCK_IOCTL_H
#define TRAK_BLOCK_BLOCK_IOCTL_H

#include <linux/blkdev.h>

struct hd_geometry;

int trak_block_ioctl(struct block_device *bdev, fmode_t mode,
		     unsigned int cmd, unsigned long arg);
int trak_block_getgeo(struct block_device *bdev, struct hd_geometry *geo);

#endif
