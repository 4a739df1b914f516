/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_SNAP_SNAP_NODE_H
#define TRAK_SNAP_SNAP_NODE_H

#include "trak_ioctl.h"

struct trak_blkdev;
struct trak_unlink_batch;

int trak_ioctl_add_snap_node(struct trak_add_snap_args *rec);
int trak_ioctl_resume_snap(struct trak_resume_snap_args *rec);
int trak_snap_destroy(struct trak_blkdev *dev,
		      struct trak_unlink_batch *cow_files);

#endif
