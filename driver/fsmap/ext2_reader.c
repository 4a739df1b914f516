// SPDX-License-Identifier: GPL-2.0
/*
 * ext2/ext3/ext4 reader: used blocks from the block groups' block bitmaps.
 * ext3 reads like ext2; its journal is a file whose blocks are marked
 * used.  ext4 adds 64-bit descriptors and block numbers, bitmaps anywhere
 * (flex_bg), bitmaps that were never written (BLOCK_UNINIT groups, whose
 * bitmap is computed), a bit per cluster (bigalloc) and checksums.
 */
#include "blkbmp.h"
#include "ext2_fs.h"
#include "fs_features.h"
#include "reader.h"

/* Larger block sizes than 64 KiB do not exist; they mean a corrupt SB. */
#define EXT2_MAX_LOG_BLOCK_SIZE		6
/* Nor do clusters of more than 1 GiB. */
#define EXT4_MAX_LOG_CLUSTER_SIZE	20

/*
 * The features this reader reads correctly: none of them moves a group's
 * descriptor out of the table after the superblock or changes what a bit
 * of its block bitmap stands for beyond what the reader follows (64-bit
 * descriptors, bitmaps anywhere, bitmaps computed for BLOCK_UNINIT groups,
 * a bit per cluster, checksums).  Any other feature may, and guessing
 * there could call a used block free, which would let a snapshot skip a
 * chunk that holds data.
 */
#define EXT2_INCOMPAT_READABLE	(0x0002 /* filetype */ |		\
				 0x0004 /* needs_recovery */ |		\
				 0x0040 /* extent */ |			\
				 0x0080 /* 64bit */ |			\
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
				 0x0010 /* uninit_bg */ |		\
				 0x0020 /* dir_nlink */ |		\
				 0x0040 /* extra_isize */ |		\
				 0x0100 /* quota */ |			\
				 0x0200 /* bigalloc */ |		\
				 0x0400 /* metadata_csum */ |		\
				 0x1000 /* read-only */ |		\
				 0x2000 /* project */ |			\
				 0x4000 /* shared_blocks */ |		\
				 0x8000 /* verity */ |			\
				 0x10000 /* orphan_present */)

static const struct trak_feature_name ext2_incompat_names[] = {
	{ 0x0001, "compression" },
	{ 0x0008, "journal_dev" },
	{ 0, NULL }
};

static const struct trak_feature_name ext2_ro_compat_names[] = {
	{ 0x0080, "snapshot" },
	{ 0x0800, "replica" },
	{ 0, NULL }
};

/*
 * Where a read stands: block group @group, cluster @bit of its bitmap and
 * output chunk @out.  @left counts what remains of the current unit: the
 * clusters of the chunk, or, when a cluster spans several chunks, the
 * chunks of the cluster.
 */
struct ext2_walk {
	u32 group;
	u32 bit;
	u32 out;
	u32 left;
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
 * Refuses a file system with a feature that changes how its descriptors or
 * block bitmaps must be read (EXT2_*_READABLE), naming the features.
 */
static int ext2_reader_check_features(struct block_device *bdev,
				      const u8 *sb, const char *func)
{
	const struct trak_feature_set sets[] = {
		{ get_unaligned_le32(sb + EXT2_SB_FEATURE_INCOMPAT) &
		  ~EXT2_INCOMPAT_READABLE, ext2_incompat_names, "incompat" },
		{ get_unaligned_le32(sb + EXT2_SB_FEATURE_RO_COMPAT) &
		  ~EXT2_RO_COMPAT_READABLE, ext2_ro_compat_names, "ro_compat" },
	};

	return trak_refuse_features(bdev, func, "ext2/ext3", sets,
				    ARRAY_SIZE(sets));
}

static int ext2_reader_corrupt(struct block_device *bdev, const char *func)
{
	trak_log(TRAK_LOG_ERR, "%s(): Superblock of hdd(%d, %d) is corrupt.",
		 func, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
	return -EINVAL;
}

/* 64-bit descriptors and block counts, and clusters (bigalloc). */
static int ext2_reader_ext4_geometry(struct ext2_reader *ctx, const u8 *sb,
				     const char *func)
{
	const u32 incompat = get_unaligned_le32(sb + EXT2_SB_FEATURE_INCOMPAT);
	const u32 ro_compat = get_unaligned_le32(sb +
						 EXT2_SB_FEATURE_RO_COMPAT);
	const u32 log_block = get_unaligned_le32(sb + EXT2_SB_LOG_BLOCK_SIZE);
	u32 log_cluster;

	ctx->desc_size = EXT2_DESC_SIZE;
	if (incompat & EXT2_FEATURE_INCOMPAT_64BIT) {
		ctx->desc_size = get_unaligned_le16(sb + EXT2_SB_DESC_SIZE);
		ctx->blocks_count |= (u64)get_unaligned_le32(sb +
				     EXT2_SB_BLOCKS_COUNT_HI) << 32;
		if (ctx->desc_size < EXT4_DESC_SIZE_64BIT ||
		    ctx->desc_size > EXT4_MAX_DESC_SIZE ||
		    !is_power_of_2(ctx->desc_size))
			return ext2_reader_corrupt(ctx->bdev, func);
	}

	ctx->clusters_per_group = ctx->blocks_per_group;
	if (ro_compat & EXT2_FEATURE_RO_COMPAT_BIGALLOC) {
		log_cluster = get_unaligned_le32(sb + EXT2_SB_LOG_CLUSTER_SIZE);
		if (log_cluster < log_block ||
		    log_cluster > EXT4_MAX_LOG_CLUSTER_SIZE)
			return ext2_reader_corrupt(ctx->bdev, func);
		ctx->cluster_bits = log_cluster - log_block;
		ctx->clusters_per_group =
			get_unaligned_le32(sb + EXT2_SB_CLUSTERS_PER_GROUP);
		/* The walk relies on groups of whole clusters from block 0. */
		if ((u64)ctx->clusters_per_group << ctx->cluster_bits !=
		    ctx->blocks_per_group || ctx->first_data_block)
			return ext2_reader_corrupt(ctx->bdev, func);
	}
	/* A group's bits must fit its bitmap block, and the groups a disk. */
	if (!ctx->clusters_per_group ||
	    ctx->clusters_per_group > ctx->block_size * 8 ||
	    ctx->first_data_block >= ctx->blocks_count ||
	    DIV_ROUND_UP(ctx->blocks_count - ctx->first_data_block,
			 ctx->blocks_per_group) > U32_MAX)
		return ext2_reader_corrupt(ctx->bdev, func);
	return 0;
}

/*
 * The group descriptors' checksums, and what computing a BLOCK_UNINIT
 * group's bitmap needs: both come with uninit_bg or metadata_csum.
 */
static int ext2_reader_ext4_checksums(struct ext2_reader *ctx, const u8 *sb,
				      const char *func)
{
	struct block_device *bdev = ctx->bdev;
	const u32 ro_compat = get_unaligned_le32(sb +
						 EXT2_SB_FEATURE_RO_COMPAT);
	u32 inode_size = EXT2_GOOD_OLD_INODE_SIZE;
	int rc;

	if (ro_compat & EXT2_FEATURE_RO_COMPAT_METADATA_CSUM) {
		if (sb[EXT2_SB_CHECKSUM_TYPE] != EXT4_CRC32C_CHKSUM)
			return ext2_reader_corrupt(bdev, func);
		rc = trak_blkbmp_check_sb_csum(bdev, func,
					       get_unaligned_le32(sb +
								  EXT2_SB_CHECKSUM),
					       trak_ext4_sb_csum(sb));
		if (rc)
			return rc;
		ctx->group_csum = EXT2_GROUP_CSUM_CRC32C;
		ctx->csum_seed = trak_ext4_csum_seed(sb);
	} else if (ro_compat & EXT2_FEATURE_RO_COMPAT_GDT_CSUM) {
		ctx->group_csum = EXT2_GROUP_CSUM_CRC16;
		memcpy(ctx->uuid, sb + EXT2_SB_UUID, sizeof(ctx->uuid));
	} else {
		return 0;
	}

	ctx->sparse_super = ro_compat & EXT2_FEATURE_RO_COMPAT_SPARSE_SUPER;
	ctx->sparse_super2 = get_unaligned_le32(sb + EXT2_SB_FEATURE_COMPAT) &
			     EXT2_FEATURE_COMPAT_SPARSE_SUPER2;
	ctx->backup_groups[0] = get_unaligned_le32(sb + EXT2_SB_BACKUP_BGS);
	ctx->backup_groups[1] = get_unaligned_le32(sb + EXT2_SB_BACKUP_BGS + 4);
	ctx->reserved_gdt_blocks = get_unaligned_le16(sb +
						      EXT2_SB_RESERVED_GDT_BLOCKS);
	if (get_unaligned_le32(sb + EXT2_SB_REV_LEVEL))
		inode_size = get_unaligned_le16(sb + EXT2_SB_INODE_SIZE);
	if (inode_size < EXT2_GOOD_OLD_INODE_SIZE ||
	    inode_size > ctx->block_size || !is_power_of_2(inode_size))
		return ext2_reader_corrupt(bdev, func);
	ctx->inode_table_blocks = ctx->inodes_per_group /
				  (ctx->block_size / inode_size);
	return 0;
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
	    EXT2_MAX_LOG_BLOCK_SIZE)
		return ext2_reader_corrupt(bdev, func);
	if (get_unaligned_le32(sb + EXT2_SB_FEATURE_INCOMPAT) &
	    EXT2_FEATURE_INCOMPAT_META_BG) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Sorry, we don't support ext2/ext3 with meta block groups.",
			 func);
		return -EINVAL;
	}
	rc = ext2_reader_check_features(bdev, sb, func);
	if (!rc)
		rc = ext2_reader_ext4_geometry(ctx, sb, func);
	if (!rc)
		rc = ext2_reader_ext4_checksums(ctx, sb, func);
	if (rc)
		return rc;

	ctx->group_count = DIV_ROUND_UP(ctx->blocks_count -
					ctx->first_data_block,
					ctx->blocks_per_group);
	ctx->descs_per_block = ctx->block_size / ctx->desc_size;
	ctx->desc_blocks = DIV_ROUND_UP(ctx->group_count, ctx->descs_per_block);
	trak_log(2, "   magic=0x%04x", get_unaligned_le16(sb + EXT2_SB_MAGIC));
	trak_log(2, "   block_size=%d", ctx->block_size);
	trak_log(2, "   blocks_count=%llu (%lluMB)", ctx->blocks_count,
		 ctx->blocks_count * ctx->block_size >> 20);
	trak_log(2, "   blocks_per_group=%d", ctx->blocks_per_group);
	trak_log(2, "   group_desc_count=%u", ctx->group_count);
	trak_log(2, "   desc_blocks=%d", ctx->desc_blocks);

	/* The descriptors follow the block that holds the superblock. */
	ctx->desc = vmalloc((size_t)ctx->desc_blocks * ctx->block_size);
	if (!ctx->desc)
		goto nomem;
	rc = trak_bread(bdev, ctx->desc, ctx->block_size,
			EXT2_SB_OFFSET / ctx->block_size + 1, ctx->desc_blocks);
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
 * Puts the block bitmap of @group in ctx->bitmap: read from its block, or
 * computed when the group's bitmap was never written.  Returns 1 when the
 * group must count as all used (the bitmap is then all ones, and why is
 * logged), 0 when the bitmap is there, or a read error.
 */
static int ext2_reader_fill_bitmap(struct ext2_reader *ctx, u32 group,
				   const u8 *desc, const char *func)
{
	u32 found, computed;
	int rc;

	if (ctx->group_csum != EXT2_GROUP_CSUM_NONE) {
		found = get_unaligned_le16(desc + EXT4_BG_CHECKSUM);
		computed = trak_ext4_desc_csum(ctx, group, desc);
		if (found != computed) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Checksum of the descriptor of block group %u is wrong: 0x%04x instead of 0x%04x.",
				 func, group, found, computed);
			goto all_used;
		}
		if (get_unaligned_le16(desc + EXT2_BG_FLAGS) &
		    EXT4_BG_BLOCK_UNINIT) {
			if (trak_ext4_build_uninit_bitmap(ctx, group, desc))
				return 0;
			trak_log(TRAK_LOG_ERR,
				 "%s(): Block group %u is marked uninitialised, which it cannot be.",
				 func, group);
			goto all_used;
		}
	}

	rc = trak_bread(ctx->bdev, ctx->bitmap, ctx->block_size,
			trak_ext2_desc_block(ctx, desc, EXT2_BG_BLOCK_BITMAP), 1);
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to read Data Bitmap of Block Group %d: rc=%d",
			 func, group, rc);
		return rc;
	}
	if (ctx->group_csum == EXT2_GROUP_CSUM_CRC32C) {
		found = trak_ext4_desc_bitmap_csum(ctx, desc);
		computed = trak_ext4_bitmap_csum(ctx);
		if (found != computed) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Checksum of Data Bitmap of Block Group %u is wrong: 0x%08x instead of 0x%08x.",
				 func, group, found, computed);
			goto all_used;
		}
	}
	return 0;
all_used:
	memset(ctx->bitmap, 0xFF, ctx->block_size);
	return 1;
}

/*
 * Loads the block bitmap of @group unless it is cached.  A group whose
 * bitmap cannot be trusted counts as all used: its descriptor or bitmap
 * fails its checksum, or the bitmap's free count disagrees with the
 * descriptor's.
 */
static int ext2_reader_load_group(struct ext2_reader *ctx, u32 group,
				  const char *func)
{
	const u8 *desc = trak_ext2_desc(ctx, group);
	u32 i, used = 0, free_count;
	int rc;

	if (ctx->cached_group == (s32)group)
		return 0;
	ctx->cached_group = -1;
	rc = ext2_reader_fill_bitmap(ctx, group, desc, func);
	if (rc < 0)
		return rc;
	if (rc == 0) {
		for (i = 0; i < ctx->block_size; i++)
			used += ctx->bit_count[ctx->bitmap[i]];
		free_count = trak_ext2_desc_field(ctx, desc,
						  EXT2_BG_FREE_BLOCKS_COUNT,
						  sizeof(u16));
		if (ctx->block_size * 8 - used != free_count) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Number of free blocks (%d) in block group %d is inconsistent with the bitmap (%d).",
				 func, free_count, group,
				 ctx->block_size * 8 - used);
			memset(ctx->bitmap, 0xFF, ctx->block_size);
		}
	}
	ctx->cached_group = group;
	return 0;
}

/* Positions @w at the first cluster of chunk @start. */
static void ext2_walk_start(const struct ext2_reader *ctx, u32 start,
			    u32 bpc, struct ext2_walk *w)
{
	const u32 ratio = 1U << ctx->cluster_bits;
	u64 offset;

	if ((u64)start * bpc > ctx->first_data_block) {
		offset = (u64)start * bpc - ctx->first_data_block;
		w->group = offset / ctx->blocks_per_group;
		w->bit = (offset % ctx->blocks_per_group) >> ctx->cluster_bits;
		w->out = 0;
		w->left = bpc >= ratio ? bpc >> ctx->cluster_bits :
			  (ratio - offset % ratio) / bpc;
	} else {
		w->group = 0;
		w->bit = 0;
		w->out = ctx->first_data_block / bpc - start;
		w->left = bpc >= ratio ?
			  (bpc - ctx->first_data_block % bpc) >>
			  ctx->cluster_bits : ratio / bpc;
	}
}

/*
 * One cluster of a walk whose clusters span @cpc chunks each: a used
 * cluster sets its chunks, those before @end.
 */
static void ext2_walk_spread(const u8 *map, struct ext2_walk *w, u32 cpc,
			     u64 *bits, u32 end)
{
	u64 c;

	if (trak_chunk_test(map, w->bit))
		for (c = w->out; c < (u64)w->out + w->left && c < end; c++)
			trak_chunk_set(bits, c);
	w->out += w->left;
	w->left = cpc;
	w->bit++;
}

static int ext2_reader_read(void *p, u32 start, u32 chunk_size, u64 *bits,
			    u32 n)
{
	struct ext2_reader *ctx = p;
	const u32 ratio = 1U << ctx->cluster_bits;
	struct ext2_walk w;
	u32 bpc, end = n, c;
	u64 blk, fs_chunks;
	bool spread;
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

	/*
	 * Chunks smaller than a cluster (bigalloc) each take their cluster's
	 * bit; a last cluster may reach past the file system, whose chunks
	 * stay clear.
	 */
	spread = bpc < ratio;
	if (spread) {
		fs_chunks = DIV_ROUND_UP(ctx->blocks_count, bpc);
		end = fs_chunks > start ? min_t(u64, n, fs_chunks - start) : 0;
	}
	ext2_walk_start(ctx, start, bpc, &w);

	for (; w.group < ctx->group_count; w.group++) {
		rc = ext2_reader_load_group(ctx, w.group, __func__);
		if (rc)
			return rc;
		while (w.bit < ctx->clusters_per_group) {
			blk = trak_ext2_group_first_block(ctx, w.group) +
			      ((u64)w.bit << ctx->cluster_bits);
			if (w.out >= end || blk >= ctx->blocks_count)
				return 0;
			if (spread)
				ext2_walk_spread(ctx->bitmap, &w, ratio / bpc,
						 bits, end);
			else
				trak_chunk_walk_step(ctx->bitmap, &w.bit,
						     &w.left,
						     bpc >> ctx->cluster_bits,
						     bits, &w.out);
		}
		/* A jump over the rest of a chunk may carry into the next group. */
		w.bit -= ctx->clusters_per_group;
	}
	return 0;
}

const struct trak_blkbmp_reader trak_ext2_reader = {
	.init = ext2_reader_init,
	.read = ext2_reader_read,
	.destroy = ext2_reader_destroy,
};
