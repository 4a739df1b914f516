/* SPDX-License-Identifier: GPL-2.0 */
/*
 * File-system readers: each recognises one on-disk format and answers
 * which chunks of the partition hold used blocks.
 */
#ifndef TRAK_FSMAP_READER_H
#define TRAK_FSMAP_READER_H

#include "trak_env.h"

struct trak_blkbmp_reader {
	/*
	 * Returns a context, or NULL when the partition does not hold this
	 * file system or cannot be read.  Stores the file system's block
	 * size through @block_size when it is not NULL.
	 */
	void *(*init)(struct block_device *bdev, u32 *block_size);
	/*
	 * Clears ceil(@n / 8) bytes of @bits and sets bit i when a block of
	 * chunk @start + i is in use.  Returns 0 or a negative errno.
	 */
	int (*read)(void *ctx, u32 start, u32 chunk_size, u64 *bits, u32 n);
	void (*destroy)(void *ctx);
};

extern const struct trak_blkbmp_reader trak_ext2_reader;
extern const struct trak_blkbmp_reader trak_reiserfs_reader;
extern const struct trak_blkbmp_reader trak_xfs_reader;

/*
 * Tries the readers in the order ext2/ext3, ReiserFS, XFS.  Returns the
 * first that recognises @bdev, with its context in @ctx, or NULL.
 */
const struct trak_blkbmp_reader *
trak_blkbmp_find_reader(struct block_device *bdev, u32 *block_size,
			void **ctx);

/* The checks every reader makes of a chunk size, with its messages. */
int trak_blkbmp_check_chunk_size(const char *func, u32 chunk_size,
				 u32 block_size);

/*
 * The check of a superblock's checksum, with its message: 0 when @found
 * equals @computed, else -EINVAL.
 */
int trak_blkbmp_check_sb_csum(struct block_device *bdev, const char *func,
			      u32 found, u32 computed);

#endif
