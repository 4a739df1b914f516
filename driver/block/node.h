/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_BLOCK_NODE_H
#define TRAK_BLOCK_NODE_H

#include "trak_ioctl.h"

struct trak_blkdev;
struct trak_unlink_batch;

int trak_ioctl_del_node(struct trak_minor_args *rec);
/*
 * Takes a stopped node away, a filter with its snaps; the COW files of the
 * snaps that go are added to @cow_files for the caller to remove once it
 * released the registry, or stay when @cow_files is NULL.
 */
int trak_block_destroy_device(struct trak_blkdev *dev,
			      struct trak_unlink_batch *cow_files);
void trak_node_take_down(struct trak_blkdev *dev);
void trak_node_free(struct trak_blkdev *dev);

#endif
