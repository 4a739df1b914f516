// SPDX-License-Identifier: GPL-2.0
/*
 * The block bitmap of an ext4 group that mkfs marked BLOCK_UNINIT: it was
 * never written, so it is computed as the kernel's ext4_init_block_bitmap
 * computes it.  Reading the block instead would read whatever lies there.
 */
#include "ext2_fs.h"

/* Whether @a is a power of @b greater than 1, as ext4's test_root(). */
static bool trak_ext4_is_power(u32 a, u32 b)
{
	while (a >= b) {
		if (a == b)
			return true;
		if (a % b)
			return false;
		a /= b;
	}
	return false;
}

/* Whether @group holds a superblock copy, as ext4_bg_has_super(). */
static bool trak_ext4_has_super(const struct ext2_reader *ctx, u32 group)
{
	if (group == 0)
		return true;
	if (ctx->sparse_super2)
		return group == ctx->backup_groups[0] ||
		       group == ctx->backup_groups[1];
	if (group <= 1 || !ctx->sparse_super)
		return true;
	if (!(group & 1))
		return false;
	return trak_ext4_is_power(group, 3) || trak_ext4_is_power(group, 5) ||
	       trak_ext4_is_power(group, 7);
}

/*
 * Clusters at the start of @group that hold its superblock copy, the
 * descriptor table copy and the blocks reserved for its growth.
 */
static u32 trak_ext4_base_meta_clusters(const struct ext2_reader *ctx,
					u32 group)
{
	u32 blocks = 0;

	if (trak_ext4_has_super(ctx, group))
		blocks = 1 + ctx->desc_blocks + ctx->reserved_gdt_blocks;
	return DIV_ROUND_UP(blocks, 1U << ctx->cluster_bits);
}

static u32 trak_ext4_clusters_in_group(const struct ext2_reader *ctx,
				       u32 group)
{
	u64 blocks = ctx->blocks_per_group;

	if (group == ctx->group_count - 1)
		blocks = ctx->blocks_count -
			 trak_ext2_group_first_block(ctx, group);
	return DIV_ROUND_UP(blocks, 1U << ctx->cluster_bits);
}

/* Marks block @blk used when it lies in the group that starts at @start. */
static void trak_ext4_mark_in_group(struct ext2_reader *ctx, u64 start,
				    u64 blk)
{
	if (blk >= start && blk - start < ctx->blocks_per_group)
		bitmap_set((unsigned long *)ctx->bitmap,
			   (blk - start) >> ctx->cluster_bits, 1);
}

bool trak_ext4_build_uninit_bitmap(struct ext2_reader *ctx, u32 group,
				   const u8 *desc)
{
	const u32 bits = ctx->block_size * 8;
	const u64 start = trak_ext2_group_first_block(ctx, group);
	const u32 meta = trak_ext4_base_meta_clusters(ctx, group);
	const u32 end = trak_ext4_clusters_in_group(ctx, group);
	const u64 table = trak_ext2_desc_block(ctx, desc, EXT2_BG_INODE_TABLE);
	u32 i;

	/* Group 0 always holds data; the kernel refuses it uninitialised. */
	if (group == 0 || meta >= bits)
		return false;
	memset(ctx->bitmap, 0, ctx->block_size);
	bitmap_set((unsigned long *)ctx->bitmap, 0, meta);
	trak_ext4_mark_in_group(ctx, start,
				trak_ext2_desc_block(ctx, desc,
						     EXT2_BG_BLOCK_BITMAP));
	trak_ext4_mark_in_group(ctx, start,
				trak_ext2_desc_block(ctx, desc,
						     EXT2_BG_INODE_BITMAP));
	for (i = 0; i < ctx->inode_table_blocks; i++)
		trak_ext4_mark_in_group(ctx, start, table + i);
	/* The bits past the group's last cluster stand for no block. */
	if (end < bits)
		bitmap_set((unsigned long *)ctx->bitmap, end, bits - end);
	return true;
}
