// SPDX-License-Identifier: GPL-2.0
/*
 * ext2/ext3 reader: used blocks from the block groups' block bitmaps.  ext3
 * reads like ext2; its journal is a file whose blocks are marked used.
 */
#include "blkbmp.h"
#include "reader.h"

#define EXT2_SB_OFFSET			1024
#define EXT2_SB_SIZE			1024
#define EXT2_SB_BLOCKS_COUNT		4
#define EXT2_SB_FIRST_DATA_BLOCK	20
#define EXT2_SB_LOG_BLOCK_SIZE		24
#define EXT2_SB_BLOCKS_PER_GROUP	32
#define EXT2_SB_INODES_PER_GROUP	40
#define EXT2_SB_MAGIC			56
#define EXT2_SB_FEATURE_INCOMPAT	96
#define EXT2_SB_FEATURE_RO_COMPAT	100

#define EXT2_MAGIC			0xEF53
#define EXT2_FEATURE_INCOMPAT_META_BG	0x10
/* Larger block sizes than 64 KiB do not exist; they mean a corrupt SB. */
#define EXT2_MAX_LOG_BLOCK_SIZE		6

#define EXT2_DESC_SIZE			32
#define EXT2_BG_BLOCK_BITMAP		0
#define EXT2_BG_FREE_BLOCKS_COUNT	12

/*
 * The features this reader reads correctly: none of them moves a group's
 * descriptor or changes what a bit of its block bitmap stands for.  Any
 * other feature may (64-bit descriptors, clusters, uninitialised groups),
 * and guessing there could call a used block free, which would let a
 * snapshot skip a chunk that holds data.
 */
#define EXT2_INCOMPAT_READABLE	(0x0002 /* filetype */ |		\
				 0x0004 /* needs_recovery */ |		\
				 0x0040 /* extent */ |			\
				 0x0100 /* mmp */ |			\
				 0x0200 /* flex_bg: bitmaps anywhere */ |	\
				 0x0400 /* ea_inode */ |		\
				 0x1000 /* dirdata */ |			\
				 0x2000 /* metadata_csum_seed */ |	\
				 0x4000 /* large_dir */ |		\
				 0x8000 /* inline_data */ |		\
				 0x10000 /* encrypt */ |		\
				 0x20000 /* casefold */)
#define EXT2_RO_COMPAT_READABLE	(0x0001 /* sparse_super */ |		\
				 0x0002 /* large_file */ |		\
				 0x0004 /* btree_dir */ |		\
				 0x0008 /* huge_file */ |		\
				 0x0020 /* dir_nlink */ |		\
				 0x0040 /* extra_isize */ |		\
				 0x0100 /* quota */ |			\
				 0x1000 /* read-only */ |		\
				 0x2000 /* project */ |			\
				 0x4000 /* shared_blocks */ |		\
				 0x8000 /* verity */ |			\
				 0x10000 /* orphan_present */)

struct ext2_feature_name {
	u32 mask;
	const char *name;
};

static const struct ext2_feature_name ext2_incompat_names[] = {
	{ 0x0001, "compression" },
	{ 0x0008, "journal_dev" },
	{ 0x0080, "64bit" },
	{ 0, NULL }
};

static const struct ext2_feature_name ext2_ro_compat_names[] = {
	{ 0x0010, "uninit_bg" },
	{ 0x0080, "snapshot" },
	{ 0x0200, "bigalloc" },
	{ 0x0400, "metadata_csum" },
	{ 0x0800, "replica" },
	{ 0, NULL }
};

/* Longest list of feature names a refusal names, with its separators. */
#define EXT2_FEATURE_LIST_SIZE	160

struct ext2_reader {
	struct block_device *bdev;
	u32 block_size;
	u32 blocks_count;
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
};

static void ext2_reader_destroy(void *p)
{
	struct ext2_reader *ctx = p;

	if (!ctx)
		return;
	vfree(ctx->desc);
	vfree(ctx->bitmap);
	kfree(ctx->bit_count);
	kfree(ctx);
}

/*
 * Appends to @list the names of the features in @features that @table
 * knows, and "@kind 0x..." for any others.  Returns the new length.
 */
static int ext2_feature_list(char *list, int len, u32 features,
			     const struct ext2_feature_name *table,
			     const char *kind)
{
	const struct ext2_feature_name *f;

	for (f = table; f->name; f++) {
		if (!(features & f->mask))
			continue;
		len += scnprintf(list + len, EXT2_FEATURE_LIST_SIZE - len,
				 "%s%s", len ? ", " : "", f->name);
		features &= ~f->mask;
	}
	if (features)
		len += scnprintf(list + len, EXT2_FEATURE_LIST_SIZE - len,
				 "%s%s 0x%x", len ? ", " : "", kind, features);
	return len;
}

/*
 * Refuses a file system with a feature that changes how its descriptors or
 * block bitmaps must be read (EXT2_*_READABLE), naming the features.
 */
static int ext2_reader_check_features(struct block_device *bdev,
				      const u8 *sb, const char *func)
{
	u32 incompat = get_unaligned_le32(sb + EXT2_SB_FEATURE_INCOMPAT) &
		       ~EXT2_INCOMPAT_READABLE;
	u32 ro_compat = get_unaligned_le32(sb + EXT2_SB_FEATURE_RO_COMPAT) &
			~EXT2_RO_COMPAT_READABLE;
	char list[EXT2_FEATURE_LIST_SIZE];
	int len;

	if (!incompat && !ro_compat)
		return 0;
	len = ext2_feature_list(list, 0, incompat, ext2_incompat_names,
				"incompat");
	ext2_feature_list(list, len, ro_compat, ext2_ro_compat_names,
			  "ro_compat");
	trak_log(TRAK_LOG_ERR,
		 "%s(): Sorry, we don't support ext2/ext3 with %s on hdd(%d, %d).",
		 func, list, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
	return -EINVAL;
}

/* The checks and tables after recognition; logs under @func. */
static int ext2_reader_setup(struct ext2_reader *ctx, const u8 *sb,
			     const char *func)
{
	struct block_device *bdev = ctx->bdev;
	int rc, v;

	if (!ctx->blocks_per_group || !ctx->inodes_per_group ||
	    !ctx->blocks_count ||
	    get_unaligned_le32(sb + EXT2_SB_LOG_BLOCK_SIZE) >
	    EXT2_MAX_LOG_BLOCK_SIZE) {
		trak_log(TRAK_LOG_ERR, "%s(): Superblock of hdd(%d, %d) is corrupt.",
			 func, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
		return -EINVAL;
	}
	if (get_unaligned_le32(sb + EXT2_SB_FEATURE_INCOMPAT) &
	    EXT2_FEATURE_INCOMPAT_META_BG) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Sorry, we don't support ext2/ext3 with meta block groups.",
			 func);
		return -EINVAL;
	}
	rc = ext2_reader_check_features(bdev, sb, func);
	if (rc)
		return rc;

	ctx->group_count = DIV_ROUND_UP(ctx->blocks_count -
					ctx->first_data_block,
					ctx->blocks_per_group);
	ctx->descs_per_block = ctx->block_size / EXT2_DESC_SIZE;
	ctx->desc_blocks = DIV_ROUND_UP(ctx->group_count, ctx->descs_per_block);
	trak_log(2, "   magic=0x%04x", get_unaligned_le16(sb + EXT2_SB_MAGIC));
	trak_log(2, "   block_size=%d", ctx->block_size);
	trak_log(2, "   blocks_count=%d (%lldMB)", ctx->blocks_count,
		 (long long)ctx->blocks_count * ctx->block_size >> 20);
	trak_log(2, "   blocks_per_group=%d", ctx->blocks_per_group);
	trak_log(2, "   group_desc_count=%d", ctx->group_count);
	trak_log(2, "   desc_blocks=%d", ctx->desc_blocks);

	ctx->desc = vmalloc((size_t)ctx->desc_blocks * ctx->block_size);
	if (!ctx->desc)
		goto nomem;
	rc = trak_bread(bdev, ctx->desc, ctx->block_size,
			ctx->first_data_block + 1, ctx->desc_blocks);
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to read Block Group Descriptors of hdd(%d, %d): rc=%d",
			 func, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev), rc);
		return rc;
	}

	ctx->bitmap = vmalloc(ctx->block_size);
	ctx->cached_group = -1;
	ctx->bit_count = kzalloc(256, GFP_KERNEL);
	if (!ctx->bitmap || !ctx->bit_count)
		goto nomem;
	for (v = 0; v < 256; v++)
		ctx->bit_count[v] = (v & 1) + ctx->bit_count[v >> 1];
	return 0;
nomem:
	trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.", func);
	return -ENOMEM;
}

static void *ext2_reader_init(struct block_device *bdev, u32 *block_size)
{
	struct ext2_reader *ctx = NULL;
	u8 *sb;
	int rc;

	sb = kmalloc(EXT2_SB_SIZE, GFP_KERNEL);
	if (!sb) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		return NULL;
	}
	rc = trak_bread(bdev, sb, EXT2_SB_SIZE,
			EXT2_SB_OFFSET / EXT2_SB_SIZE, 1);
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d",
			 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev), rc);
		goto out;
	}
	if (get_unaligned_le16(sb + EXT2_SB_MAGIC) != EXT2_MAGIC) {
		trak_log(3, "%s(): hdd(%d, %d) doesn't have ext2/ext3 FS.",
			 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
		goto out;
	}

	trak_log(2, "%s(): Detected ext2/ext3 FS on hdd(%d, %d)",
		 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
	ctx = kzalloc(sizeof(*ctx), GFP_KERNEL);
	if (!ctx) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		goto out;
	}
	ctx->bdev = bdev;
	ctx->blocks_count = get_unaligned_le32(sb + EXT2_SB_BLOCKS_COUNT);
	ctx->first_data_block = get_unaligned_le32(sb +
						   EXT2_SB_FIRST_DATA_BLOCK);
	ctx->block_size = 1024U << (get_unaligned_le32(sb +
					EXT2_SB_LOG_BLOCK_SIZE) & 31);
	ctx->blocks_per_group = get_unaligned_le32(sb +
						   EXT2_SB_BLOCKS_PER_GROUP);
	ctx->inodes_per_group = get_unaligned_le32(sb +
						   EXT2_SB_INODES_PER_GROUP);
	if (block_size)
		*block_size = ctx->block_size;

	if (ext2_reader_setup(ctx, sb, __func__)) {
		ext2_reader_destroy(ctx);
		ctx = NULL;
	}
out:
	kfree(sb);
	return ctx;
}

/*
 * Loads the block bitmap of @group unless it is cached.  A bitmap whose
 * free count disagrees with the group's descriptor counts as all used.
 */
static int ext2_reader_load_group(struct ext2_reader *ctx, u32 group,
				  const char *func)
{
	const u8 *desc = ctx->desc + (size_t)group * EXT2_DESC_SIZE;
	u32 i, used = 0, free_count;
	int rc;

	if (ctx->cached_group == (s32)group)
		return 0;
	ctx->cached_group = -1;
	rc = trak_bread(ctx->bdev, ctx->bitmap, ctx->block_size,
			get_unaligned_le32(desc + EXT2_BG_BLOCK_BITMAP), 1);
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to read Data Bitmap of Block Group %d: rc=%d",
			 func, group, rc);
		return rc;
	}
	for (i = 0; i < ctx->block_size; i++)
		used += ctx->bit_count[ctx->bitmap[i]];
	free_count = get_unaligned_le16(desc + EXT2_BG_FREE_BLOCKS_COUNT);
	if (ctx->block_size * 8 - used != free_count) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Number of free blocks (%d) in block group %d is inconsistent with the bitmap (%d).",
			 func, free_count, group, ctx->block_size * 8 - used);
		memset(ctx->bitmap, 0xFF, ctx->block_size);
	}
	ctx->cached_group = group;
	return 0;
}

static int ext2_reader_read(void *p, u32 start, u32 chunk_size, u64 *bits,
			    u32 n)
{
	struct ext2_reader *ctx = p;
	const u32 group_bits = ctx->block_size * 8;
	u32 bpc, group, bit, out, left, c;
	u64 offset, blk;
	int rc;

	rc = trak_blkbmp_check_chunk_size(__func__, chunk_size,
					  ctx->block_size);
	if (rc)
		return rc;
	bpc = chunk_size / ctx->block_size;
	memset(bits, 0, DIV_ROUND_UP(n, 8));

	/* The boot block and, with 1 KiB blocks, the superblock. */
	for (c = start; c <= ctx->first_data_block / bpc && c - start < n; c++)
		trak_chunk_set(bits, c - start);

	if ((u64)start * bpc > ctx->first_data_block) {
		offset = (u64)start * bpc - ctx->first_data_block;
		group = offset / ctx->blocks_per_group;
		bit = offset % ctx->blocks_per_group;
		out = 0;
		left = bpc;
	} else {
		group = 0;
		bit = 0;
		out = ctx->first_data_block / bpc - start;
		left = bpc - ctx->first_data_block % bpc;
	}

	for (; group < ctx->group_count; group++) {
		rc = ext2_reader_load_group(ctx, group, __func__);
		if (rc)
			return rc;
		while (bit < group_bits) {
			blk = (u64)group * ctx->blocks_per_group +
			      ctx->first_data_block + bit;
			if (out >= n || blk >= ctx->blocks_count)
				return 0;
			trak_chunk_walk_step(ctx->bitmap, &bit, &left, bpc, bits,
					     &out);
		}
		/* A jump over the rest of a chunk may carry into the next group. */
		bit -= group_bits;
	}
	return 0;
}

const struct trak_blkbmp_reader trak_ext2_reader = {
	.init = ext2_reader_init,
	.read = ext2_reader_read,
	.destroy = ext2_reader_destroy,
};
