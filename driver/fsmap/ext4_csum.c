// SPDX-License-Identifier: GPL-2.0
/*
 * The checksums ext4 keeps of its superblock, group descriptors and block
 * bitmaps: crc32c with metadata_csum, crc16 of the descriptors with
 * uninit_bg.  Computed as the kernel's ext4 computes them, so that a
 * damaged descriptor or bitmap is never believed.
 */
#include "ext2_fs.h"

#define EXT4_CRC32C_SEED	(~0U)
#define EXT4_CRC16_SEED		0xFFFF

u32 trak_ext4_csum_seed(const u8 *sb)
{
	if (get_unaligned_le32(sb + EXT2_SB_FEATURE_INCOMPAT) &
	    EXT2_FEATURE_INCOMPAT_CSUM_SEED)
		return get_unaligned_le32(sb + EXT2_SB_CHECKSUM_SEED);
	return crc32c(EXT4_CRC32C_SEED, sb + EXT2_SB_UUID, EXT2_SB_UUID_SIZE);
}

u32 trak_ext4_sb_csum(const u8 *sb)
{
	return crc32c(EXT4_CRC32C_SEED, sb, EXT2_SB_CHECKSUM);
}

/* The descriptor's bytes around its checksum field, which counts as 0. */
u16 trak_ext4_desc_csum(const struct ext2_reader *ctx, u32 group,
			const u8 *desc)
{
	const u32 rest = EXT4_BG_CHECKSUM + sizeof(u16);
	const u8 zero[sizeof(u16)] = { 0 };
	u8 le_group[sizeof(u32)];
	u32 crc;
	u16 crc16_sum;

	put_unaligned_le32(group, le_group);
	if (ctx->group_csum == EXT2_GROUP_CSUM_CRC32C) {
		crc = crc32c(ctx->csum_seed, le_group, sizeof(le_group));
		crc = crc32c(crc, desc, EXT4_BG_CHECKSUM);
		crc = crc32c(crc, zero, sizeof(zero));
		if (rest < ctx->desc_size)
			crc = crc32c(crc, desc + rest, ctx->desc_size - rest);
		return crc & 0xFFFF;
	}
	crc16_sum = crc16(EXT4_CRC16_SEED, ctx->uuid, sizeof(ctx->uuid));
	crc16_sum = crc16(crc16_sum, le_group, sizeof(le_group));
	crc16_sum = crc16(crc16_sum, desc, EXT4_BG_CHECKSUM);
	if (rest < ctx->desc_size)
		crc16_sum = crc16(crc16_sum, desc + rest,
				  ctx->desc_size - rest);
	return crc16_sum;
}

/*
 * The checksum covers the group's clusters only, not the padding after
 * them; a 32-byte descriptor keeps its lower half.
 */
u32 trak_ext4_bitmap_csum(const struct ext2_reader *ctx)
{
	u32 crc = crc32c(ctx->csum_seed, ctx->bitmap,
			 ctx->clusters_per_group / 8);

	return ctx->desc_size >= EXT4_DESC_SIZE_64BIT ? crc : crc & 0xFFFF;
}

u32 trak_ext4_desc_bitmap_csum(const struct ext2_reader *ctx, const u8 *desc)
{
	return trak_ext2_desc_field(ctx, desc, EXT4_BG_BLOCK_BITMAP_CSUM,
				    sizeof(u16));
}
