/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_BLOCK_LIFECYCLE_H
#define TRAK_BLOCK_LIFECYCLE_H

#include <linux/blkdev.h>

#include "trak_ioctl.h"

struct trak_blkdev;

int trak_ioctl_start_node(struct trak_minor_args *rec);
int trak_ioctl_stop_node(struct trak_minor_args *rec);
int trak_block_start_device(struct trak_blkdev *dev);
int trak_block_stop_device(struct trak_blkdev *dev);
int trak_block_open(struct block_device *bdev, fmode_t mode);
void trak_block_release(struct gendisk *disk, fmode_t mode);

#endif
