/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_BLOCK_QUERY_H
#define TRAK_BLOCK_QUERY_H

#include "trak_ioctl.h"

struct trak_blkdev;

int trak_ioctl_get_device_list(struct trak_device_list_args *rec);
int trak_ioctl_get_info(struct trak_blkdev *dev, struct trak_info_args *rec);

#endif
