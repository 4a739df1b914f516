// SPDX-License-Identifier: GPL-2.0
/*
 * XFS reader: free extents from each allocation group's by-block
 * free-space B+tree.  A chunk is free only when one free extent covers it.
 * Version 5 (CRC) keeps the same trees behind longer, checksummed block
 * headers; reflink and rmapbt add trees of their own but leave the
 * free-space trees the whole truth about free space.
 */
#include "blkbmp.h"
#include "reader.h"
#include "xfs_fs.h"

#define XFS_BT_MAX_LEVELS	16	/* far more than any real tree */
#define XFS_NULL_AGBLOCK	0xFFFFFFFFU

#define XFS_MIN_BLOCK_SIZE	512
#define XFS_MAX_BLOCK_SIZE	65536

/* The free-extent walk through the leaves of one allocation group. */
struct xfs_leaf_walk {
	u32 rec;
	u32 numrecs;
	u32 rightsib;
	u64 ag_start;
};

static void xfs_reader_destroy(void *p)
{
	struct xfs_reader *ctx = p;

	if (!ctx)
		return;
	kfree(ctx->buf);
	kfree(ctx->bno_root);
	kfree(ctx->ag_length);
	kfree(ctx);
}

static int xfs_read_ag_headers(struct xfs_reader *ctx, u32 ag,
			       const char *func)
{
	struct block_device *bdev = ctx->bdev;
	const u64 sector = (u64)ag * ctx->agblocks * ctx->blocksize /
			   XFS_SECTOR_SIZE;
	u32 magic;
	int rc;

	rc = trak_bread(bdev, ctx->buf, XFS_SECTOR_SIZE, sector, 1);
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to read Super Block of AG %d of hdd(%d, %d): rc=%d",
			 func, ag, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev),
			 rc);
		return rc;
	}
	magic = get_unaligned_be32(ctx->buf + XFS_SB_MAGICNUM);
	if (magic != ctx->magicnum) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): AG %d of hdd(%d, %d) has incorrect SB magic number: 0x%08x instead of 0x%08x.",
			 func, ag, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev),
			 magic, ctx->magicnum);
		return -EINVAL;
	}

	/*
	 * The AGF is the AG's second sector.  Version 4 is read as if sectors
	 * were 512 bytes; version 5's checksum covers the whole sector.
	 */
	rc = trak_bread(bdev, ctx->buf, ctx->agf_sector,
			sector * XFS_SECTOR_SIZE / ctx->agf_sector + 1, 1);
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to read AGF of AG %d of hdd(%d, %d): rc=%d",
			 func, ag, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev),
			 rc);
		return rc;
	}
	magic = get_unaligned_be32(ctx->buf + XFS_AGF_MAGICNUM);
	if (magic != XFS_AGF_MAGIC) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Incorrect AGF magic of AG %d of hdd(%d, %d): 0x%08x instead of 0x%08x",
			 func, ag, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev),
			 magic, XFS_AGF_MAGIC);
		return -EINVAL;
	}
	if (ctx->crc) {
		rc = trak_xfs_v5_check_agf(ctx, ag, func);
		if (rc)
			return rc;
	}
	ctx->bno_root[ag] = get_unaligned_be32(ctx->buf + XFS_AGF_BNO_ROOT);
	ctx->ag_length[ag] = get_unaligned_be32(ctx->buf + XFS_AGF_LENGTH);
	trak_log(2, "      AGF[%d]: roots=(%d, %d), levels=(%d, %d), freeblks=%d, length=%d",
		 ag, ctx->bno_root[ag],
		 get_unaligned_be32(ctx->buf + XFS_AGF_CNT_ROOT),
		 get_unaligned_be32(ctx->buf + XFS_AGF_BNO_LEVEL),
		 get_unaligned_be32(ctx->buf + XFS_AGF_CNT_LEVEL),
		 get_unaligned_be32(ctx->buf + XFS_AGF_FREEBLKS),
		 ctx->ag_length[ag]);
	return 0;
}

static int xfs_reader_setup(struct xfs_reader *ctx, u32 *block_size,
			    const char *func)
{
	struct block_device *bdev = ctx->bdev;
	u32 ag;
	int rc;

	if (block_size)
		*block_size = ctx->blocksize;
	if (ctx->blocksize < XFS_MIN_BLOCK_SIZE ||
	    ctx->blocksize > XFS_MAX_BLOCK_SIZE ||
	    !is_power_of_2(ctx->blocksize) || !ctx->agblocks) {
		trak_log(TRAK_LOG_ERR, "%s(): Superblock of hdd(%d, %d) is corrupt.",
			 func, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
		return -EINVAL;
	}
	if (ctx->blocksize != XFS_BUF_SIZE) {
		kfree(ctx->buf);
		ctx->buf = kmalloc(ctx->blocksize, GFP_KERNEL);
		if (!ctx->buf)
			goto nomem;
	}
	trak_log(2, "%s(): Detected XFS on hdd(%d, %d)", func,
		 MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
	trak_log(2, "   magic=0x%08x", ctx->magicnum);
	trak_log(2, "   blocksize=%d", ctx->blocksize);
	trak_log(2, "   sectsize=%d", ctx->sectsize);
	trak_log(2, "   AG size=%d blocks", ctx->agblocks);
	trak_log(2, "   AG count=%d", ctx->agcount);
	if ((ctx->versionnum & XFS_SB_VERSION_NUMBITS) == XFS_SB_VERSION_5) {
		rc = trak_xfs_v5_setup(ctx, func);
		if (rc)
			return rc;
	}

	ctx->bno_root = kmalloc_array(ctx->agcount, sizeof(u32), GFP_KERNEL);
	ctx->ag_length = kmalloc_array(ctx->agcount, sizeof(u32), GFP_KERNEL);
	if (!ctx->bno_root || !ctx->ag_length)
		goto nomem;
	for (ag = 0; ag < ctx->agcount; ag++) {
		rc = xfs_read_ag_headers(ctx, ag, func);
		if (rc)
			return rc;
	}
	return 0;
nomem:
	trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.", func);
	return -ENOMEM;
}

static void *xfs_reader_init(struct block_device *bdev, u32 *block_size)
{
	struct xfs_reader *ctx;
	const u8 *sb;
	int rc;

	ctx = kzalloc(sizeof(*ctx), GFP_KERNEL);
	if (!ctx) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed",
			 __func__);
		return NULL;
	}
	ctx->bdev = bdev;
	ctx->buf = kmalloc(XFS_BUF_SIZE, GFP_KERNEL);
	if (!ctx->buf) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		goto fail;
	}
	rc = trak_bread(bdev, ctx->buf, XFS_SECTOR_SIZE, 0, 1);
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d",
			 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev), rc);
		goto fail;
	}
	sb = ctx->buf;
	ctx->magicnum = get_unaligned_be32(sb + XFS_SB_MAGICNUM);
	ctx->blocksize = get_unaligned_be32(sb + XFS_SB_BLOCKSIZE);
	ctx->agblocks = get_unaligned_be32(sb + XFS_SB_AGBLOCKS);
	ctx->agcount = get_unaligned_be32(sb + XFS_SB_AGCOUNT);
	ctx->versionnum = get_unaligned_be16(sb + XFS_SB_VERSIONNUM);
	ctx->sectsize = get_unaligned_be16(sb + XFS_SB_SECTSIZE);
	ctx->agf_sector = XFS_SECTOR_SIZE;
	ctx->bt_hdr_size = XFS_BT_HDR_SIZE;
	ctx->bt_magic = XFS_ABTB_MAGIC;
	if (ctx->magicnum != XFS_SB_MAGIC) {
		trak_log(3, "%s(): hdd(%d, %d) doesn't have XFS.", __func__,
			 MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
		goto fail;
	}
	if (xfs_reader_setup(ctx, block_size, __func__))
		goto fail;
	return ctx;
fail:
	xfs_reader_destroy(ctx);
	return NULL;
}

/*
 * Reads tree block @blk (partition block) and checks its magic; a wrong
 * magic is reported in host order, or as it lies on disk if @disk_order.
 */
static int xfs_read_tree_block(struct xfs_reader *ctx, u64 blk,
			       const char *func, bool disk_order)
{
	u32 magic;
	int rc;

	rc = trak_bread(ctx->bdev, ctx->buf, ctx->blocksize, blk, 1);
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to read AGF node from block %lld: rc=%d",
			 func, (long long)blk, rc);
		return rc;
	}
	magic = get_unaligned_be32(ctx->buf + XFS_BT_MAGIC);
	if (magic != ctx->bt_magic) {
		if (disk_order)
			magic = get_unaligned((u32 *)(ctx->buf + XFS_BT_MAGIC));
		trak_log(TRAK_LOG_ERR,
			 "%s(): Invalid B+tree node block magic: 0x%08x instead of 0x%08x",
			 func, magic, ctx->bt_magic);
		return -EINVAL;
	}
	return ctx->crc ? trak_xfs_v5_check_tree_block(ctx, blk, func) : 0;
}

/*
 * Descends from tree block @block of the AG starting at @ag_start to the
 * leaf that holds the free extent at or before AG block @target, leaving
 * the leaf in the context's buffer.
 */
static int xfs_find_leaf(struct xfs_reader *ctx, u32 target, u64 ag_start,
			 u32 block)
{
	const u32 maxrecs = (ctx->blocksize - ctx->bt_hdr_size) /
			    (XFS_BT_REC_SIZE + XFS_BT_PTR_SIZE);
	const u8 *keys = ctx->buf + ctx->bt_hdr_size;
	const u8 *ptrs = keys + maxrecs * XFS_BT_REC_SIZE;
	u32 i, numrecs, depth;
	int rc;

	for (depth = 0; depth < XFS_BT_MAX_LEVELS; depth++) {
		rc = xfs_read_tree_block(ctx, ag_start + block, __func__,
					 false);
		if (rc)
			return rc;
		if (!get_unaligned_be16(ctx->buf + XFS_BT_LEVEL))
			return 0;
		numrecs = min_t(u32, maxrecs,
				get_unaligned_be16(ctx->buf + XFS_BT_NUMRECS));
		for (i = 0; i < numrecs; i++)
			if (get_unaligned_be32(keys + i * XFS_BT_REC_SIZE) >
			    target)
				break;
		/* The last key not beyond the target, or the first key. */
		i = i ? i - 1 : 0;
		block = get_unaligned_be32(ptrs + i * XFS_BT_PTR_SIZE);
	}
	trak_log(TRAK_LOG_ERR, "%s(): B+tree of more than %d levels at block %lld",
		 __func__, XFS_BT_MAX_LEVELS, (long long)(ag_start + block));
	return -EINVAL;
}

static u32 xfs_leaf_maxrecs(const struct xfs_reader *ctx)
{
	return (ctx->blocksize - ctx->bt_hdr_size) / XFS_BT_REC_SIZE;
}

/* Starts the walk at the first record of the leaf in the buffer. */
static void xfs_leaf_walk_start(const struct xfs_reader *ctx,
				struct xfs_leaf_walk *walk)
{
	walk->rec = 0;
	walk->numrecs = min_t(u32, xfs_leaf_maxrecs(ctx),
			      get_unaligned_be16(ctx->buf + XFS_BT_NUMRECS));
	walk->rightsib = get_unaligned_be32(ctx->buf + XFS_BT_RIGHTSIB);
}

static u32 xfs_rec_start(const struct xfs_reader *ctx, u32 rec)
{
	return get_unaligned_be32(ctx->buf + ctx->bt_hdr_size +
				  rec * XFS_BT_REC_SIZE);
}

static u64 xfs_rec_end(const struct xfs_reader *ctx, u32 rec)
{
	return (u64)xfs_rec_start(ctx, rec) +
	       get_unaligned_be32(ctx->buf + ctx->bt_hdr_size +
				  rec * XFS_BT_REC_SIZE + 4);
}

/*
 * Steps past the free extents that end at or before AG block @p, along the
 * right siblings.  Leaves walk->rec == walk->numrecs when none is left.
 */
static int xfs_leaf_walk_to(struct xfs_reader *ctx,
			    struct xfs_leaf_walk *walk, u64 p,
			    const char *func)
{
	int rc;

	while (walk->rec < walk->numrecs && xfs_rec_end(ctx, walk->rec) <= p) {
		walk->rec++;
		if (walk->rec < walk->numrecs ||
		    walk->rightsib == XFS_NULL_AGBLOCK)
			continue;
		rc = xfs_read_tree_block(ctx, walk->ag_start + walk->rightsib,
					 func, true);
		if (rc)
			return rc;
		xfs_leaf_walk_start(ctx, walk);
	}
	return 0;
}

static int xfs_reader_read(void *p_ctx, u32 start, u32 chunk_size, u64 *bits,
			   u32 n)
{
	struct xfs_reader *ctx = p_ctx;
	struct xfs_leaf_walk walk = { 0 };
	u32 bpc, i, ag = 0;
	u64 first, p = 0;
	int rc;

	rc = trak_blkbmp_check_chunk_size(__func__, chunk_size,
					  ctx->blocksize);
	if (rc)
		return rc;
	memset(bits, 0, DIV_ROUND_UP(n, 8));
	bpc = chunk_size / ctx->blocksize;

	for (i = 0; i < n; i++, p += bpc) {
		if (i == 0 || p >= ctx->ag_length[ag]) {
			first = ((u64)start + i) * bpc;
			if (first / ctx->agblocks >= ctx->agcount)
				break;
			ag = first / ctx->agblocks;
			walk.ag_start = (u64)ag * ctx->agblocks;
			p = first - walk.ag_start;
			rc = xfs_find_leaf(ctx, p, walk.ag_start,
					   ctx->bno_root[ag]);
			if (rc)
				return rc;
			xfs_leaf_walk_start(ctx, &walk);
		}
		rc = xfs_leaf_walk_to(ctx, &walk, p, __func__);
		if (rc)
			return rc;
		if (walk.rec == walk.numrecs ||
		    p < xfs_rec_start(ctx, walk.rec) ||
		    p + bpc > xfs_rec_end(ctx, walk.rec))
			trak_chunk_set(bits, i);
	}
	return 0;
}

const struct trak_blkbmp_reader trak_xfs_reader = {
	.init = xfs_reader_init,
	.read = xfs_reader_read,
	.destroy = xfs_reader_destroy,
};
