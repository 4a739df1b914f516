/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_UTIL_BREAD_H
#define TRAK_UTIL_BREAD_H

#include <linux/types.h>

struct block_device;

/*
 * Reads @count consecutive blocks of @size bytes (at most a page) from
 * block @blk of @bdev into @buf, one synchronous I/O per block.  Returns 0
 * or a negative errno; on failure the blocks before the failing one are
 * already in @buf.
 */
int trak_bread(struct block_device *bdev, void *buf, u32 size, u64 blk,
	       int count);

#endif
