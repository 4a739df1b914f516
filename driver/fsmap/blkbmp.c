// SPDX-License-Identifier: GPL-2.0
/* Data-block bitmap: building it from a file-system reader, exporting it. */
#include "blkbmp.h"
#include "reader.h"

/* Candidate fragment counts of the layout search. */
#define TRAK_BLKBMP_MAX_FRAGS	65536
/*
 * The layout the search starts from: one-byte fragments over the whole
 * scratch buffer.  Every real candidate is smaller; it is built only for a
 * segment too short for any candidate (at most 3 bytes).
 */
#define TRAK_BLKBMP_NOTIONAL_FRAGS	TRAK_BLKBMP_SEG_BYTES
#define TRAK_BLKBMP_NOTIONAL_SIZE	(4 * TRAK_BLKBMP_SEG_BYTES)

int trak_blkbmp_init(struct trak_blkbmp *bmp)
{
	bmp->valid = 0;
	bmp->chunks = 0;
	bmp->segments = 0;
	bmp->sa = NULL;
	return 0;
}

/*
 * Picks the fragment count and size that store the @bytes bytes of
 * @scratch in the fewest bytes and builds @sa with them.  The bytes after
 * @bytes up to the end of the last fragment count as used data.
 */
static int trak_blkbmp_build_segment(struct trak_blkbmp_sa *sa, u8 *scratch,
				     u32 bytes)
{
	u32 c, z, best_c = TRAK_BLKBMP_NOTIONAL_FRAGS, best_z = 1;
	int size, best_size = TRAK_BLKBMP_NOTIONAL_SIZE;

	for (c = 1; c <= TRAK_BLKBMP_MAX_FRAGS; c <<= 1) {
		z = roundup_pow_of_two(DIV_ROUND_UP(bytes, c));
		if (z < 4)
			break;
		memset(scratch + bytes, 0xFF, c * z - bytes);
		size = create_sa(NULL, c, z, scratch, true);
		trak_log(4, "%d x %d (%d bytes) will take %d bytes",
			 c, z, bytes, size);
		if (size < best_size) {
			best_size = size;
			best_c = c;
			best_z = z;
		}
	}
	/* The tail counts as used data, also in the notional layout. */
	memset(scratch + bytes, 0xFF, best_c * best_z - bytes);

	trak_log(3, "Block Bitmap Fragment: %dB => %dB (%d x %d) (%02d%%)",
		 bytes, best_size, best_c, best_z,
		 100 - best_size * 100 / (int)bytes);
	if (create_sa(sa, best_c, best_z, scratch, false) < 0)
		return -ENOMEM;
	return 0;
}

static int trak_blkbmp_read_segments(struct trak_blkbmp *bmp,
				     const struct trak_blkbmp_reader *reader,
				     void *ctx, u32 chunk_size, u8 *scratch)
{
	u32 first, n;
	int s, rc;

	for (s = 0; s < bmp->segments; s++) {
		first = (u32)s << TRAK_BLKBMP_SEG_SHIFT;
		n = min_t(u32, bmp->chunks - first, TRAK_BLKBMP_SEG_CHUNKS);
		rc = reader->read(ctx, first, chunk_size, (u64 *)scratch, n);
		if (rc < 0)
			return rc;
		rc = trak_blkbmp_build_segment(&bmp->sa[s], scratch,
					       DIV_ROUND_UP(n, 8));
		if (rc < 0)
			return rc;
	}
	return 0;
}

int trak_blkbmp_read(struct trak_blkbmp *bmp, struct block_device *bdev,
		     u32 chunk_size)
{
	const struct trak_blkbmp_reader *reader;
	u8 *scratch = NULL;
	void *ctx;
	u64 chunks;
	int rc;

	reader = trak_blkbmp_find_reader(bdev, NULL, &ctx);
	if (!reader) {
		trak_log(1, "%s(): Cannot recognize file system on hdd(%d, %d). Datablocks will be disabled",
			 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
		return -EINVAL;
	}
	if (chunk_size < 2 || !is_power_of_2(chunk_size)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Chunk size (%d) must be a power of 2",
			 __func__, chunk_size);
		rc = -EINVAL;
		goto out;
	}

	chunks = ((u64)bdev_nr_bytes(bdev) + chunk_size - 1) >>
		 ilog2(chunk_size);
	if (chunks > S32_MAX) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): hdd(%d, %d) has too many chunks (%llu) of %d bytes",
			 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev),
			 chunks, chunk_size);
		rc = -EINVAL;
		goto out;
	}
	bmp->chunks = chunks;
	bmp->segments = DIV_ROUND_UP(bmp->chunks, TRAK_BLKBMP_SEG_CHUNKS);
	bmp->sa = kcalloc(bmp->segments, sizeof(*bmp->sa), GFP_KERNEL);
	if (!bmp->sa) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		bmp->segments = 0;
		rc = -ENOMEM;
		goto out;
	}
	scratch = vmalloc(TRAK_BLKBMP_SEG_BYTES);
	if (!scratch) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed",
			 __func__);
		rc = -ENOMEM;
		goto out;
	}

	rc = trak_blkbmp_read_segments(bmp, reader, ctx, chunk_size, scratch);
	if (!rc)
		bmp->valid = 1;
out:
	reader->destroy(ctx);
	vfree(scratch);
	return rc;
}

int trak_blkbmp_export(const struct trak_blkbmp *bmp, s32 k, u64 *out,
		       s32 size)
{
	u64 chunk, group;
	s32 needed;
	s32 left;

	if (!bmp->valid) {
		if (size > 0)
			memset(out, 0xFF, size);
		return 0;
	}
	if (!out) {
		trak_log(TRAK_LOG_ERR, "%s(): NULL buffer passed as input",
			 __func__);
		return -EINVAL;
	}
	if (k < 1) {
		trak_log(TRAK_LOG_ERR, "%s(): Invalid chunks per bit (%d)",
			 __func__, k);
		return -EINVAL;
	}
	needed = DIV_ROUND_UP(DIV_ROUND_UP(bmp->chunks, k), 8);
	if (size < needed) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Insufficient buffer size passed as input: should be %d instead of %d",
			 __func__, needed, size);
		return -EINVAL;
	}

	memset(out, 0, needed);
	chunk = 0;
	group = 0;
	left = k;
	while (chunk < (u64)bmp->chunks) {
		if (trak_blkbmp_has_data(bmp, chunk)) {
			trak_chunk_set(out, group);
			group++;
			chunk = group * k;
			left = k;
		} else {
			chunk++;
			if (--left == 0) {
				group++;
				left = k;
			}
		}
	}
	return 0;
}

int trak_blkbmp_destroy(struct trak_blkbmp *bmp)
{
	int s;

	for (s = 0; s < bmp->segments; s++) {
		vfree(bmp->sa[s].idx);
		vfree(bmp->sa[s].pool);
	}
	kfree(bmp->sa);
	return trak_blkbmp_init(bmp);
}
