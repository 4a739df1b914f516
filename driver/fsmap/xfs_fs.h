/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The XFS on-disk layout as the XFS reader sees it, and the reader's
 * context, shared by the files of the reader.  All numbers on disk are
 * big-endian, except the little-endian checksums of version 5.
 */
#ifndef TRAK_FSMAP_XFS_FS_H
#define TRAK_FSMAP_XFS_FS_H

#include "trak_env.h"

#define XFS_SECTOR_SIZE		512
#define XFS_BUF_SIZE		4096

/* Superblock, at sector 0 of the partition and of every AG. */
#define XFS_SB_MAGICNUM		0
#define XFS_SB_BLOCKSIZE	4
#define XFS_SB_UUID		32
#define XFS_SB_AGBLOCKS		84
#define XFS_SB_AGCOUNT		88
#define XFS_SB_VERSIONNUM	100
#define XFS_SB_SECTSIZE		102
#define XFS_SB_FEATURES_INCOMPAT 216
#define XFS_SB_CRC		224
#define XFS_SB_META_UUID	248
#define XFS_SB_MAGIC		0x58465342	/* "XFSB" */
#define XFS_SB_VERSION_NUMBITS	0x000F
#define XFS_SB_VERSION_5	5
#define XFS_UUID_SIZE		16

#define XFS_SB_FEAT_INCOMPAT_META_UUID	0x04
#define XFS_SB_FEAT_INCOMPAT_NEEDSREPAIR 0x10

/* AGF, at the AG's second sector. */
#define XFS_AGF_MAGICNUM	0
#define XFS_AGF_LENGTH		12
#define XFS_AGF_BNO_ROOT	16
#define XFS_AGF_CNT_ROOT	20
#define XFS_AGF_BNO_LEVEL	28
#define XFS_AGF_CNT_LEVEL	32
#define XFS_AGF_FREEBLKS	52
#define XFS_AGF_CRC		216
#define XFS_AGF_MAGIC		0x58414746	/* "XAGF" */

/*
 * Free-space B+tree block: a short header, and with version 5 its
 * extension (where the block lies, whose it is, its checksum).
 */
#define XFS_BT_MAGIC		0
#define XFS_BT_LEVEL		4
#define XFS_BT_NUMRECS		6
#define XFS_BT_RIGHTSIB		12
#define XFS_BT_HDR_SIZE		16
#define XFS_BT_BLKNO		16
#define XFS_BT_UUID		32
#define XFS_BT_OWNER		48
#define XFS_BT_CRC		52
#define XFS_BT_CRC_HDR_SIZE	56
#define XFS_BT_REC_SIZE		8	/* start block, block count */
#define XFS_BT_PTR_SIZE		4
#define XFS_ABTB_MAGIC		0x41425442	/* "ABTB" */
#define XFS_ABTB_CRC_MAGIC	0x41423342	/* "AB3B" */

struct xfs_reader {
	u32 magicnum;
	u32 blocksize;
	u32 agblocks;
	u32 agcount;
	u16 versionnum;
	u16 sectsize;
	struct block_device *bdev;
	u8 *buf;
	u32 *bno_root;
	u32 *ag_length;

	/* What version 5 changes; version 4 has the values in brackets. */
	bool crc;			/* checksummed metadata [false] */
	u32 agf_sector;			/* the AGF's offset and size [512] */
	u32 bt_hdr_size;		/* [16] */
	u32 bt_magic;			/* ["ABTB"] */
	u8 meta_uuid[XFS_UUID_SIZE];	/* stamped in each tree block */
};

/*
 * Checks the version 5 superblock at the start of the partition: its
 * features and its checksum; sets what version 5 changes in @ctx.
 */
int trak_xfs_v5_setup(struct xfs_reader *ctx, const char *func);
/* The checksum of AG @ag's AGF, in ctx->buf. */
int trak_xfs_v5_check_agf(struct xfs_reader *ctx, u32 ag, const char *func);
/* The header of the tree block of partition block @blk, in ctx->buf. */
int trak_xfs_v5_check_tree_block(struct xfs_reader *ctx, u64 blk,
				 const char *func);

#endif
