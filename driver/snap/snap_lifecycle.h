/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_SNAP_SNAP_LIFECYCLE_H
#define TRAK_SNAP_SNAP_LIFECYCLE_H

#include "trak_ioctl.h"

struct trak_blkdev;

int trak_snap_start(struct trak_blkdev *snap);
int trak_snap_stop(struct trak_blkdev *snap);
int trak_snap_resume(struct trak_blkdev *snap,
		     const struct trak_resume_snap_args *rec);
void trak_snap_map_data_blocks(struct trak_blkdev *snap);
int trak_filter_stop_snaps(struct trak_blkdev *filter);

#endif
