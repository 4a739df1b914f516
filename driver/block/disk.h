/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_BLOCK_DISK_H
#define TRAK_BLOCK_DISK_H

#include <linux/types.h>

struct block_device;
struct trak_blkdev;

int trak_disk_create(struct trak_blkdev *dev, struct block_device *hdd,
		     u64 size);
void trak_disk_destroy(struct trak_blkdev *dev);
void trak_disk_make_dev_file(struct trak_blkdev *dev);
void trak_disk_announce_change(struct trak_blkdev *dev);
void trak_disk_announce_invalid(struct trak_blkdev *dev);

#endif
