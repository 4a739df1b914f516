/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_BLOCK_NODE_H
#define TRAK_BLOCK_NODE_H

#include "trak_ioctl.h"

struct trak_blkdev;

int trak_ioctl_del_node(struct trak_minor_args *rec);
int trak_block_destroy_device(struct trak_blkdev *dev, int unlink_files);
void trak_node_take_down(struct trak_blkdev *dev);
void trak_node_free(struct trak_blkdev *dev);

#endif
