/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The ext2/ext3/ext4 on-disk layout as the ext2 reader sees it, and the
 * reader's context, shared by the files of the reader.  All numbers on
 * disk are little-endian.
 */
#ifndef TRAK_FSMAP_EXT2_FS_H
#define TRAK_FSMAP_EXT2_FS_H

#include "trak_env.h"

/* Superblock, 1024 bytes at byte 1024 of the partition. */
#define EXT2_SB_OFFSET			1024
#define EXT2_SB_SIZE			1024
#define EXT2_SB_BLOCKS_COUNT		0x04
#define EXT2_SB_FIRST_DATA_BLOCK	0x14
#define EXT2_SB_LOG_BLOCK_SIZE		0x18
#define EXT2_SB_LOG_CLUSTER_SIZE	0x1C
#define EXT2_SB_BLOCKS_PER_GROUP	0x20
#define EXT2_SB_CLUSTERS_PER_GROUP	0x24
#define EXT2_SB_INODES_PER_GROUP	0x28
#define EXT2_SB_MAGIC			0x38
#define EXT2_SB_REV_LEVEL		0x4C
#define EXT2_SB_INODE_SIZE		0x58
#define EXT2_SB_FEATURE_COMPAT		0x5C
#define EXT2_SB_FEATURE_INCOMPAT	0x60
#define EXT2_SB_FEATURE_RO_COMPAT	0x64
#define EXT2_SB_UUID			0x68
#define EXT2_SB_UUID_SIZE		16
#define EXT2_SB_RESERVED_GDT_BLOCKS	0xCE
#define EXT2_SB_DESC_SIZE		0xFE
#define EXT2_SB_BLOCKS_COUNT_HI		0x150
#define EXT2_SB_CHECKSUM_TYPE		0x175
#define EXT2_SB_BACKUP_BGS		0x24C
#define EXT2_SB_CHECKSUM_SEED		0x270
#define EXT2_SB_CHECKSUM		0x3FC

#define EXT2_MAGIC			0xEF53
#define EXT2_GOOD_OLD_INODE_SIZE	128
#define EXT4_CRC32C_CHKSUM		1

#define EXT2_FEATURE_COMPAT_SPARSE_SUPER2	0x0200
#define EXT2_FEATURE_INCOMPAT_META_BG		0x0010
#define EXT2_FEATURE_INCOMPAT_64BIT		0x0080
#define EXT2_FEATURE_INCOMPAT_CSUM_SEED		0x2000
#define EXT2_FEATURE_RO_COMPAT_SPARSE_SUPER	0x0001
#define EXT2_FEATURE_RO_COMPAT_GDT_CSUM		0x0010
#define EXT2_FEATURE_RO_COMPAT_BIGALLOC		0x0200
#define EXT2_FEATURE_RO_COMPAT_METADATA_CSUM	0x0400

/*
 * Group descriptor: 32 bytes, or s_desc_size with 64bit.  The upper
 * halves of the 64-bit fields lie 0x20 bytes after their lower halves.
 */
#define EXT2_DESC_SIZE			32
#define EXT4_DESC_SIZE_64BIT		64
#define EXT4_MAX_DESC_SIZE		1024
#define EXT2_BG_BLOCK_BITMAP		0x00
#define EXT2_BG_INODE_BITMAP		0x04
#define EXT2_BG_INODE_TABLE		0x08
#define EXT2_BG_FREE_BLOCKS_COUNT	0x0C
#define EXT2_BG_FLAGS			0x12
#define EXT4_BG_BLOCK_BITMAP_CSUM	0x18
#define EXT4_BG_CHECKSUM		0x1E
#define EXT4_BG_HI			0x20

#define EXT4_BG_BLOCK_UNINIT		0x0002

/* How the group descriptors are checksummed. */
enum ext2_group_csum {
	EXT2_GROUP_CSUM_NONE,
	EXT2_GROUP_CSUM_CRC16,		/* uninit_bg */
	EXT2_GROUP_CSUM_CRC32C,		/* metadata_csum */
};

struct ext2_reader {
	struct block_device *bdev;
	u32 block_size;
	u64 blocks_count;
	u32 first_data_block;
	u32 blocks_per_group;
	u32 inodes_per_group;
	u32 group_count;
	u32 descs_per_block;
	u32 desc_blocks;
	u8 *desc;
	u8 *bitmap;
	s32 cached_group;
	u8 *bit_count;

	/* What ext4 adds; an ext2 or ext3 has the values in brackets. */
	u32 desc_size;			/* [32] */
	u32 cluster_bits;		/* log2(blocks per cluster) [0] */
	u32 clusters_per_group;		/* [blocks per group] */
	enum ext2_group_csum group_csum;
	u32 csum_seed;			/* of the crc32c checksums */
	u8 uuid[EXT2_SB_UUID_SIZE];	/* seed of the crc16 checksums */
	/* Where the superblock copies are, as ext4_bg_has_super() finds. */
	bool sparse_super;
	bool sparse_super2;
	u32 backup_groups[2];
	u32 reserved_gdt_blocks;
	u32 inode_table_blocks;		/* per group */
};

static inline const u8 *trak_ext2_desc(const struct ext2_reader *ctx,
				       u32 group)
{
	return ctx->desc + (size_t)group * ctx->desc_size;
}

/*
 * A descriptor field of @width bytes (2 or 4) at @lo, with its upper half
 * when the descriptor has one.
 */
static inline u64 trak_ext2_desc_field(const struct ext2_reader *ctx,
				       const u8 *desc, u32 lo, u32 width)
{
	const u8 *hi = desc + lo + EXT4_BG_HI;
	u64 v;

	v = width == 2 ? get_unaligned_le16(desc + lo) :
			 get_unaligned_le32(desc + lo);
	if (ctx->desc_size >= EXT4_DESC_SIZE_64BIT)
		v |= (u64)(width == 2 ? get_unaligned_le16(hi) :
				       get_unaligned_le32(hi)) << (8 * width);
	return v;
}

/* A block number: 32 bits, and 32 more with 64-bit descriptors. */
static inline u64 trak_ext2_desc_block(const struct ext2_reader *ctx,
				       const u8 *desc, u32 lo)
{
	return trak_ext2_desc_field(ctx, desc, lo, sizeof(u32));
}

static inline u64 trak_ext2_group_first_block(const struct ext2_reader *ctx,
					      u32 group)
{
	return ctx->first_data_block + (u64)group * ctx->blocks_per_group;
}

/*
 * Builds in ctx->bitmap the block bitmap of @group, whose descriptor says
 * it was never written (BLOCK_UNINIT).  Returns false when the group
 * cannot have such a bitmap.
 */
bool trak_ext4_build_uninit_bitmap(struct ext2_reader *ctx, u32 group,
				   const u8 *desc);

/* Checksums of metadata_csum (crc32c) and uninit_bg (crc16). */
u32 trak_ext4_csum_seed(const u8 *sb);
u32 trak_ext4_sb_csum(const u8 *sb);
u16 trak_ext4_desc_csum(const struct ext2_reader *ctx, u32 group,
			const u8 *desc);
/* Of the block bitmap in ctx->bitmap, cut to what @desc can hold. */
u32 trak_ext4_bitmap_csum(const struct ext2_reader *ctx);
u32 trak_ext4_desc_bitmap_csum(const struct ext2_reader *ctx, const u8 *desc);

#endif
