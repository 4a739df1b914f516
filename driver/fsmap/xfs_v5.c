// SPDX-License-Identifier: GPL-2.0
/*
 * What XFS version 5 adds to the metadata the reader reads: feature bits,
 * and a crc32c in the superblock, the AGF and every free-space tree block,
 * whose header also says where the block lies and whose it is.  A block
 * that fails any of them is not believed.
 */
#include "fs_features.h"
#include "reader.h"
#include "xfs_fs.h"

#define XFS_CRC_SEED		(~0U)

/*
 * The incompatible features that leave the free-space trees as the reader
 * reads them: ftype, sparse inodes, meta_uuid, bigtime, nrext64.  A file
 * system that needs repair may have trees that do not match its space.
 */
#define XFS_INCOMPAT_READABLE	(0x01 | 0x02 | 0x04 | 0x08 | 0x20)

static const struct trak_feature_name xfs_incompat_names[] = {
	{ XFS_SB_FEAT_INCOMPAT_NEEDSREPAIR, "needsrepair" },
	{ 0, NULL }
};

/*
 * The checksum that a metadata block of @len bytes at @buf should carry at
 * @off: the block's crc32c with that field taken as zero, inverted, as
 * XFS stores it (little-endian).
 */
static u32 trak_xfs_cksum(const u8 *buf, u32 len, u32 off)
{
	const u8 zero[sizeof(u32)] = { 0 };
	u32 crc;

	crc = crc32c(XFS_CRC_SEED, buf, off);
	crc = crc32c(crc, zero, sizeof(zero));
	crc = crc32c(crc, buf + off + sizeof(u32), len - off - sizeof(u32));
	return ~crc;
}

int trak_xfs_v5_setup(struct xfs_reader *ctx, const char *func)
{
	struct block_device *bdev = ctx->bdev;
	struct trak_feature_set found = { 0, xfs_incompat_names, "incompat" };
	int rc;

	/* The checksum covers the whole sector. */
	if (ctx->sectsize < XFS_SECTOR_SIZE ||
	    ctx->sectsize > min_t(u32, ctx->blocksize, XFS_BUF_SIZE) ||
	    !is_power_of_2(ctx->sectsize)) {
		trak_log(TRAK_LOG_ERR, "%s(): Superblock of hdd(%d, %d) is corrupt.",
			 func, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
		return -EINVAL;
	}
	rc = trak_bread(bdev, ctx->buf, ctx->sectsize, 0, 1);
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d",
			 func, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev), rc);
		return rc;
	}
	found.unreadable = get_unaligned_be32(ctx->buf +
					      XFS_SB_FEATURES_INCOMPAT) &
			   ~XFS_INCOMPAT_READABLE;
	rc = trak_refuse_features(bdev, func, "XFS", &found, 1);
	if (rc)
		return rc;
	rc = trak_blkbmp_check_sb_csum(bdev, func,
				       get_unaligned_le32(ctx->buf + XFS_SB_CRC),
				       trak_xfs_cksum(ctx->buf, ctx->sectsize,
						      XFS_SB_CRC));
	if (rc)
		return rc;

	ctx->crc = true;
	ctx->agf_sector = ctx->sectsize;
	ctx->bt_hdr_size = XFS_BT_CRC_HDR_SIZE;
	ctx->bt_magic = XFS_ABTB_CRC_MAGIC;
	memcpy(ctx->meta_uuid, ctx->buf +
	       (get_unaligned_be32(ctx->buf + XFS_SB_FEATURES_INCOMPAT) &
		XFS_SB_FEAT_INCOMPAT_META_UUID ?
		XFS_SB_META_UUID : XFS_SB_UUID), XFS_UUID_SIZE);
	return 0;
}

int trak_xfs_v5_check_agf(struct xfs_reader *ctx, u32 ag, const char *func)
{
	struct block_device *bdev = ctx->bdev;
	const u32 stored = get_unaligned_le32(ctx->buf + XFS_AGF_CRC);
	const u32 computed = trak_xfs_cksum(ctx->buf, ctx->agf_sector,
					    XFS_AGF_CRC);

	if (stored == computed)
		return 0;
	trak_log(TRAK_LOG_ERR,
		 "%s(): Checksum of AGF of AG %d of hdd(%d, %d) is wrong: 0x%08x instead of 0x%08x.",
		 func, ag, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev), stored,
		 computed);
	return -EINVAL;
}

int trak_xfs_v5_check_tree_block(struct xfs_reader *ctx, u64 blk,
				 const char *func)
{
	const u32 stored = get_unaligned_le32(ctx->buf + XFS_BT_CRC);
	const u32 computed = trak_xfs_cksum(ctx->buf, ctx->blocksize,
					    XFS_BT_CRC);
	const u64 sector = blk * (ctx->blocksize / XFS_SECTOR_SIZE);
	const u32 ag = blk / ctx->agblocks;

	if (stored != computed) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Checksum of B+tree node block %lld is wrong: 0x%08x instead of 0x%08x",
			 func, (long long)blk, stored, computed);
		return -EINVAL;
	}
	/* A block of another place, AG or file system, left over from before. */
	if (get_unaligned_be64(ctx->buf + XFS_BT_BLKNO) != sector ||
	    get_unaligned_be32(ctx->buf + XFS_BT_OWNER) != ag ||
	    memcmp(ctx->buf + XFS_BT_UUID, ctx->meta_uuid, XFS_UUID_SIZE)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): B+tree node block %lld is not a free-space block of AG %d of this file system",
			 func, (long long)blk, ag);
		return -EINVAL;
	}
	return 0;
}
