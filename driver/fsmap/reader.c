// SPDX-License-Identifier: GPL-2.0
/* Choosing the file-system reader of a partition. */
#include "reader.h"

static const struct trak_blkbmp_reader *const trak_blkbmp_readers[] = {
	&trak_ext2_reader,
	&trak_reiserfs_reader,
	&trak_xfs_reader,
};

const struct trak_blkbmp_reader *
trak_blkbmp_find_reader(struct block_device *bdev, u32 *block_size,
			void **ctx)
{
	size_t i;

	for (i = 0; i < ARRAY_SIZE(trak_blkbmp_readers); i++) {
		*ctx = trak_blkbmp_readers[i]->init(bdev, block_size);
		if (*ctx)
			return trak_blkbmp_readers[i];
	}
	return NULL;
}

int trak_blkbmp_check_chunk_size(const char *func, u32 chunk_size,
				 u32 block_size)
{
	if (chunk_size < 2 || !is_power_of_2(chunk_size)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Chunk size (%d) must be a power of 2.",
			 func, chunk_size);
		return -EINVAL;
	}
	if (chunk_size < block_size) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Chunk size (%d) is smaller than FS block size (%d).",
			 func, chunk_size, block_size);
		return -EINVAL;
	}
	return 0;
}

int trak_blkbmp_check_sb_csum(struct block_device *bdev, const char *func,
			      u32 found, u32 computed)
{
	if (found == computed)
		return 0;
	trak_log(TRAK_LOG_ERR,
		 "%s(): Checksum of Super Block of hdd(%d, %d) is wrong: 0x%08x instead of 0x%08x.",
		 func, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev), found,
		 computed);
	return -EINVAL;
}
