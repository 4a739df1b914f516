// SPDX-License-Identifier: GPL-2.0
/*
 * ReiserFS 3.6 reader: used blocks from the file system's block bitmaps,
 * after checking the superblock's free count against them.
 */
#include "blkbmp.h"
#include "reader.h"

#define REISERFS_SB_OFFSET		65536
#define REISERFS_SB_READ_SIZE		4096
#define REISERFS_SB_COPY		80
#define REISERFS_SB_BLOCK_COUNT		0
#define REISERFS_SB_FREE_BLOCKS		4
#define REISERFS_SB_BLOCKSIZE		44
#define REISERFS_SB_UMOUNT_STATE	50
#define REISERFS_SB_MAGIC		52
#define REISERFS_SB_MAGIC_END		63
#define REISERFS_SB_BMAP_NR		70
#define REISERFS_SB_VERSION		72
#define REISERFS_SB_INODE_GENERATION	76

#define REISERFS_MAGIC			"ReIsEr2Fs"
#define REISERFS_VALID_FS		1
#define REISERFS_MIN_BLOCK_SIZE		512

struct reiserfs_reader {
	u8 sb[REISERFS_SB_COPY];
	struct block_device *bdev;
	u8 *buf;
	s32 buf_bitmap;		/* bitmap held in buf, -1 for none */
	u32 bitmap_bits;	/* blocks covered by one bitmap */
	u32 bitmap0_block;
};

static void reiserfs_reader_destroy(void *p)
{
	struct reiserfs_reader *ctx = p;

	if (!ctx)
		return;
	kfree(ctx->buf);
	kfree(ctx);
}

static u32 reiserfs_block_size(const struct reiserfs_reader *ctx)
{
	return get_unaligned_le16(ctx->sb + REISERFS_SB_BLOCKSIZE);
}

static u32 reiserfs_block_count(const struct reiserfs_reader *ctx)
{
	return get_unaligned_le32(ctx->sb + REISERFS_SB_BLOCK_COUNT);
}

static u32 reiserfs_bmap_nr(const struct reiserfs_reader *ctx)
{
	return get_unaligned_le16(ctx->sb + REISERFS_SB_BMAP_NR);
}

static u64 reiserfs_bitmap_block(const struct reiserfs_reader *ctx, u32 i)
{
	return i ? (u64)i * ctx->bitmap_bits : ctx->bitmap0_block;
}

static void reiserfs_reader_log_sb(const struct reiserfs_reader *ctx,
				   const char *func)
{
	const u8 *sb = ctx->sb;
	u32 state = get_unaligned_le16(sb + REISERFS_SB_UMOUNT_STATE);

	trak_log(2, "%s(): Detected ReiserFS on hdd(%d, %d)", func,
		 MAJOR(ctx->bdev->bd_dev), MINOR(ctx->bdev->bd_dev));
	trak_log(2, "   magic=\"%s\"", (const char *)sb + REISERFS_SB_MAGIC);
	trak_log(2, "   block_size=%d", reiserfs_block_size(ctx));
	trak_log(2, "   block_count=%d", reiserfs_block_count(ctx));
	trak_log(2, "   free_count=%d",
		 get_unaligned_le32(sb + REISERFS_SB_FREE_BLOCKS));
	trak_log(2, "   bitmaps=%d", reiserfs_bmap_nr(ctx));
	trak_log(2, "   state=%d (%s)", state,
		 state == REISERFS_VALID_FS ? "VALID" : "ERROR");
	trak_log(2, "   version=%d",
		 get_unaligned_le16(sb + REISERFS_SB_VERSION));
	trak_log(2, "   inode_generation=%d",
		 get_unaligned_le32(sb + REISERFS_SB_INODE_GENERATION));
}

/* Counts the free blocks of all bitmaps and compares with the superblock. */
static int reiserfs_reader_check_free(struct reiserfs_reader *ctx,
				      const char *func)
{
	const u32 block_size = reiserfs_block_size(ctx);
	const u32 sb_free = get_unaligned_le32(ctx->sb +
					       REISERFS_SB_FREE_BLOCKS);
	s64 left = reiserfs_block_count(ctx);
	u32 i, byte, free_count = 0;
	u8 zero_bits[256];
	int v, rc;

	for (v = 0; v < 256; v++)
		zero_bits[v] = 8 - hweight8(v);
	for (i = 0; i < reiserfs_bmap_nr(ctx); i++) {
		rc = trak_bread(ctx->bdev, ctx->buf, block_size,
				reiserfs_bitmap_block(ctx, i), 1);
		if (rc) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Failed to read Bitmap #%d (from block %lld): rc=%d",
				 func, i,
				 (long long)reiserfs_bitmap_block(ctx, i), rc);
			return rc;
		}
		for (byte = 0; byte < block_size && left != 0; byte++) {
			free_count += zero_bits[ctx->buf[byte]];
			left -= 8;
		}
	}
	if (free_count != sb_free) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Unexpected inconsistency of ReiserFS SB on hdd=(%d, %d) says that it has %d blocks, but bitmaps argue for %d",
			 func, MAJOR(ctx->bdev->bd_dev),
			 MINOR(ctx->bdev->bd_dev), sb_free, free_count);
		return -EINVAL;
	}
	/* The buffer holds the last bitmap, but the first read reloads. */
	ctx->buf_bitmap = reiserfs_bmap_nr(ctx);
	return 0;
}

static int reiserfs_reader_setup(struct reiserfs_reader *ctx, u32 *block_size,
				 const char *func)
{
	const u32 bs = reiserfs_block_size(ctx);

	if (block_size)
		*block_size = bs;
	if (bs < REISERFS_MIN_BLOCK_SIZE || !is_power_of_2(bs)) {
		trak_log(TRAK_LOG_ERR, "%s(): Superblock of hdd(%d, %d) is corrupt.",
			 func, MAJOR(ctx->bdev->bd_dev),
			 MINOR(ctx->bdev->bd_dev));
		return -EINVAL;
	}
	if (bs != REISERFS_SB_READ_SIZE) {
		kfree(ctx->buf);
		ctx->buf = kmalloc(bs, GFP_KERNEL);
		if (!ctx->buf) {
			trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
				 func);
			return -ENOMEM;
		}
	}
	reiserfs_reader_log_sb(ctx, func);
	ctx->bitmap_bits = bs * 8;
	ctx->bitmap0_block = REISERFS_SB_OFFSET / bs + 1;
	return reiserfs_reader_check_free(ctx, func);
}

static void *reiserfs_reader_init(struct block_device *bdev, u32 *block_size)
{
	struct reiserfs_reader *ctx;
	int rc;

	ctx = kzalloc(sizeof(*ctx), GFP_KERNEL);
	if (ctx)
		ctx->buf = kmalloc(REISERFS_SB_READ_SIZE, GFP_KERNEL);
	if (!ctx || !ctx->buf) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed",
			 __func__);
		goto fail;
	}
	ctx->bdev = bdev;
	ctx->buf_bitmap = -1;

	rc = trak_bread(bdev, ctx->buf, REISERFS_SB_READ_SIZE,
			REISERFS_SB_OFFSET / REISERFS_SB_READ_SIZE, 1);
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to read Super Block of hdd(%d, %d) at offset %d: rc=%d",
			 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev),
			 REISERFS_SB_OFFSET, rc);
		goto fail;
	}
	memcpy(ctx->sb, ctx->buf, REISERFS_SB_COPY);
	ctx->sb[REISERFS_SB_MAGIC_END] = 0;
	if (memcmp(ctx->sb + REISERFS_SB_MAGIC, REISERFS_MAGIC,
		   sizeof(REISERFS_MAGIC))) {
		trak_log(3, "%s(): hdd(%d, %d) doesn't have ReiserFS.",
			 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
		goto fail;
	}
	if (reiserfs_reader_setup(ctx, block_size, __func__))
		goto fail;
	return ctx;
fail:
	reiserfs_reader_destroy(ctx);
	return NULL;
}

static int reiserfs_reader_read(void *p, u32 start, u32 chunk_size,
				u64 *bits, u32 n)
{
	struct reiserfs_reader *ctx = p;
	const u32 block_size = reiserfs_block_size(ctx);
	const u32 bitmap_bits = ctx->bitmap_bits;
	u32 bpc, idx, bit, out, left;
	u64 first;
	int rc;

	rc = trak_blkbmp_check_chunk_size(__func__, chunk_size, block_size);
	if (rc)
		return rc;
	memset(bits, 0, DIV_ROUND_UP(n, 8));
	bpc = chunk_size / block_size;
	first = (u64)start * bpc;
	idx = first / bitmap_bits;
	bit = first % bitmap_bits;
	out = 0;
	left = bpc;

	for (; idx < reiserfs_bmap_nr(ctx); idx++) {
		if (ctx->buf_bitmap != (s32)idx) {
			ctx->buf_bitmap = -1;
			rc = trak_bread(ctx->bdev, ctx->buf, block_size,
					reiserfs_bitmap_block(ctx, idx), 1);
			if (rc) {
				trak_log(TRAK_LOG_ERR,
					 "%s(): Failed to read Bitmap #%d: rc=%d",
					 __func__, idx, rc);
				return rc;
			}
			ctx->buf_bitmap = idx;
		}
		while (bit < bitmap_bits) {
			if (out >= n || (u64)idx * bitmap_bits + bit >=
			    reiserfs_block_count(ctx))
				return 0;
			trak_chunk_walk_step(ctx->buf, &bit, &left, bpc, bits,
					     &out);
		}
		/* A jump over the rest of a chunk may carry into the next bitmap. */
		bit -= bitmap_bits;
	}
	return 0;
}

const struct trak_blkbmp_reader trak_reiserfs_reader = {
	.init = reiserfs_reader_init,
	.read = reiserfs_reader_read,
	.destroy = reiserfs_reader_destroy,
};
