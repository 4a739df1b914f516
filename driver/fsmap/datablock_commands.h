/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_FSMAP_DATABLOCK_COMMANDS_H
#define TRAK_FSMAP_DATABLOCK_COMMANDS_H

#include "trak_ioctl.h"

struct trak_blkdev;

int trak_ioctl_test_datablock(struct trak_test_datablock_args *rec);
int trak_ioctl_get_datablock_bmp(struct trak_blkdev *dev,
				 struct trak_datablock_bmp_args *rec);

#endif
