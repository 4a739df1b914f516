/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_FILTER_BMP_COMMANDS_H
#define TRAK_FILTER_BMP_COMMANDS_H

#include "trak_ioctl.h"

struct trak_blkdev;

int trak_ioctl_load_bmp(struct trak_blkdev *dev, struct trak_bmp_args *rec);
int trak_ioctl_save_bmp(struct trak_blkdev *dev, struct trak_bmp_args *rec);
int trak_ioctl_clr_bmp(struct trak_blkdev *dev, struct trak_bmp_args *rec);
int trak_ioctl_set_bmp(struct trak_blkdev *dev,
		       struct trak_bmp_data_args *rec);
int trak_ioctl_merge_bmp(struct trak_blkdev *dev,
			 struct trak_bmp_data_args *rec);
int trak_ioctl_get_bmp(struct trak_blkdev *dev,
		       struct trak_bmp_data_args *rec);
int trak_ioctl_get_and_clr_bmp(struct trak_blkdev *dev,
			       struct trak_bmp_data_args *rec);

#endif
