// SPDX-License-Identifier: GPL-2.0
/*
 * The COW bitmap in memory and in its file.  A bit reaches the file, and
 * the caller syncs it, before it is set in memory: the request path lets a
 * write through to a chunk whose bit it sees, so what it sees must survive
 * a crash.
 */
#include "cowbmp.h"

static unsigned long *trak_cowbmp_seg(const struct trak_cowbmp *bmp,
				      u32 chunk)
{
	return READ_ONCE(bmp->segs[chunk >> TRAK_COWBMP_SEG_SHIFT]);
}

static void trak_cowbmp_free_segs(struct trak_cowbmp *bmp)
{
	s32 i;

	if (!bmp->segs)
		return;
	for (i = 0; i < bmp->seg_cnt; i++)
		kfree(bmp->segs[i]);
	vfree(bmp->segs);
	bmp->segs = NULL;
}

/* Sizes the bitmap for @chunks and gives it an empty segment array. */
static int trak_cowbmp_size(struct trak_cowbmp *bmp, u64 chunks,
			    const char *func)
{
	bmp->chunks = chunks;
	bmp->seg_cnt = ((chunks - 1) >> TRAK_COWBMP_SEG_SHIFT) + 1;
	bmp->segs = vzalloc(sizeof(*bmp->segs) * bmp->seg_cnt);
	if (!bmp->segs) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.", func);
		return -ENOMEM;
	}
	return 0;
}

int trak_cowbmp_init(struct trak_cowbmp *bmp, u64 chunks)
{
	trak_log(2, "%s(): Allocating COW bitmap for %lld chunks", __func__,
		 (long long)chunks);
	return trak_cowbmp_size(bmp, chunks, __func__);
}

static bool trak_cowbmp_params_valid(const struct trak_cowbmp *bmp,
				     const char *fname, bool need_segs,
				     const char *func)
{
	if (bmp && fname && fname[0] && (bmp->segs || !need_segs))
		return true;
	trak_log(TRAK_LOG_ERR, "%s(): Internal error: invalid params.", func);
	return false;
}

/*
 * Reads segment after segment of the opened file; an all-zero segment
 * stays absent, and its buffer serves the next one.
 */
static int trak_cowbmp_read_segs(struct trak_cowbmp *bmp,
				 struct trak_file *file, u64 bytes,
				 const char *fname)
{
	unsigned long *buf = NULL;
	s32 i;
	int len, rc = 0;

	for (i = 0; i < bmp->seg_cnt; i++) {
		len = min_t(u64, bytes - (u64)i * TRAK_COWBMP_SEG_BYTES,
			    TRAK_COWBMP_SEG_BYTES);
		if (!buf)
			buf = kzalloc(TRAK_COWBMP_SEG_BYTES, GFP_KERNEL);
		if (!buf) {
			trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
				 "trak_cowbmp_load");
			rc = -ENOMEM;
			break;
		}
		rc = trak_fread(file, (loff_t)i * TRAK_COWBMP_SEG_BYTES, buf,
				len);
		if (rc != len) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Failed to read %d bytes from %s: rc=%d",
				 "trak_cowbmp_load", len, fname, rc);
			rc = -EIO;
			break;
		}
		rc = 0;
		if (!memchr_inv(buf, 0, len))
			continue;
		bmp->segs[i] = buf;
		buf = NULL;
	}
	kfree(buf);
	return rc;
}

/* Replaces the bitmap by the file's, sized from the file: 8 chunks a byte. */
int trak_cowbmp_load(struct trak_cowbmp *bmp, const char *fname)
{
	struct trak_file *file;
	loff_t bytes;
	int rc;

	if (!trak_cowbmp_params_valid(bmp, fname, false, __func__))
		return -EINVAL;
	trak_log(2, "%s(): Loading COW bitmap from %s", __func__, fname);

	file = trak_fopen(fname, O_RDONLY | O_LARGEFILE, 0600);
	if (!file)
		return -EIO;
	bytes = trak_fsize(file);
	trak_cowbmp_free_segs(bmp);
	rc = bytes > 0 ? trak_cowbmp_size(bmp, (u64)bytes * 8, __func__) :
		-EIO;
	if (!rc)
		rc = trak_cowbmp_read_segs(bmp, file, bytes, fname);
	if (rc)
		trak_cowbmp_free_segs(bmp);
	trak_fclose(file);
	return rc;
}

/* Writes the whole bitmap; absent segments stay holes in the file. */
int trak_cowbmp_save(struct trak_cowbmp *bmp, const char *fname)
{
	u64 bytes;
	struct trak_file *file;
	const u8 zero = 0;
	s32 i;
	int len, rc = 0;

	if (!trak_cowbmp_params_valid(bmp, fname, true, __func__))
		return -EINVAL;
	trak_log(2, "%s(): Saving COW bitmap into %s", __func__, fname);
	bytes = ((bmp->chunks - 1) >> 3) + 1;

	file = trak_fopen(fname, O_WRONLY | O_CREAT | O_TRUNC | O_LARGEFILE,
			  0600);
	if (!file)
		return -EIO;
	/* The full length first, so that absent segments read as zeros. */
	if (trak_fwrite(file, bytes - 1, &zero, 1) != 1)
		rc = -EIO;
	for (i = 0; !rc && i < bmp->seg_cnt; i++) {
		if (!bmp->segs[i])
			continue;
		len = min_t(u64, bytes - (u64)i * TRAK_COWBMP_SEG_BYTES,
			    TRAK_COWBMP_SEG_BYTES);
		rc = trak_fwrite(file, (loff_t)i * TRAK_COWBMP_SEG_BYTES,
				 bmp->segs[i], len);
		if (rc != len) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Failed to write %d bytes into %s: rc=%d",
				 __func__, len, fname, rc);
			rc = -EIO;
		} else {
			rc = 0;
		}
	}
	trak_fclose(file);
	return rc;
}

static bool trak_cowbmp_ready(const struct trak_cowbmp *bmp, const char *func)
{
	if (bmp && bmp->segs)
		return true;
	trak_log(TRAK_LOG_ERR, "%s(): Uninitialized COW bitmap.", func);
	return false;
}

int trak_cowbmp_test_bit(const struct trak_cowbmp *bmp, u32 chunk)
{
	const unsigned long *seg;

	if (!trak_cowbmp_ready(bmp, __func__))
		return -EINVAL;
	seg = trak_cowbmp_seg(bmp, chunk);
	return seg && test_bit(chunk & (TRAK_COWBMP_SEG_CHUNKS - 1), seg);
}

/*
 * Installs the segment of @chunk if it is absent.  The bitmap has one
 * writer, but the request path reads the array meanwhile: a segment is
 * published whole, and only once.
 */
static unsigned long *trak_cowbmp_install_seg(struct trak_cowbmp *bmp,
					      u32 chunk, gfp_t gfp)
{
	unsigned long **slot = &bmp->segs[chunk >> TRAK_COWBMP_SEG_SHIFT];
	unsigned long *seg, *old;

	seg = kzalloc(TRAK_COWBMP_SEG_BYTES, gfp);
	if (!seg) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 "trak_cowbmp_write_ahead");
		return NULL;
	}
	old = cmpxchg(slot, NULL, seg);
	if (old) {
		kfree(seg);
		return old;
	}
	return seg;
}

/*
 * The byte of the bitmap file that holds the bits of chunks @byte * 8 to
 * @byte * 8 + 7, as it is in memory: absent segments read as zero.
 */
static u8 trak_cowbmp_byte(const struct trak_cowbmp *bmp, u32 byte)
{
	const unsigned long *seg = trak_cowbmp_seg(bmp, byte << 3);

	if (!seg)
		return 0;
	return ((const u8 *)seg)[byte & ((TRAK_COWBMP_SEG_CHUNKS >> 3) - 1)];
}

int trak_cowbmp_write_ahead(struct trak_cowbmp *bmp, const u32 *chunks,
			    u32 cnt, gfp_t gfp, struct trak_file *file)
{
	u32 i, byte;
	u8 val;

	if (!trak_cowbmp_ready(bmp, __func__))
		return -EINVAL;
	for (i = 0; i < cnt; i++) {
		if (i && chunks[i] <= chunks[i - 1])
			return -EINVAL;
		if (!trak_cowbmp_seg(bmp, chunks[i]) &&
		    !trak_cowbmp_install_seg(bmp, chunks[i], gfp))
			return -ENOMEM;
	}
	for (i = 0; i < cnt; ) {
		byte = chunks[i] >> 3;
		val = trak_cowbmp_byte(bmp, byte);
		for (; i < cnt && chunks[i] >> 3 == byte; i++)
			val |= 1U << (chunks[i] & 7);
		if (!file || trak_fwrite(file, byte, &val, 1) != 1) {
			trak_log(TRAK_LOG_ERR, "%s(): Failed to update changed byte in file.",
				 __func__);
			return -EIO;
		}
	}
	return 0;
}

void trak_cowbmp_publish(struct trak_cowbmp *bmp, const u32 *chunks, u32 cnt)
{
	unsigned long *seg;
	u32 i;

	for (i = 0; i < cnt; i++) {
		seg = trak_cowbmp_seg(bmp, chunks[i]);
		if (seg)
			set_bit(chunks[i] & (TRAK_COWBMP_SEG_CHUNKS - 1), seg);
	}
}

int trak_cowbmp_destroy(struct trak_cowbmp *bmp)
{
	if (!bmp || !bmp->segs)
		return 0;
	trak_cowbmp_free_segs(bmp);
	memset(bmp, 0, sizeof(*bmp));
	return 0;
}
