/* SPDX-License-Identifier: GPL-2.0 */
/*
 * COW bitmap: one bit per chunk of a snap, set once the chunk's contents
 * at the snap's point in time are preserved in its COW data file.  Kept in
 * memory as a sparse array of 4096-byte segments and mirrored in the COW
 * bitmap file, ahead of memory (see write-ahead below).  The file has no
 * header: byte k holds chunks 8k to 8k + 7, the least significant bit the
 * lowest chunk.
 *
 * Shared with the host tests: no bios, no locks of the driver.  Bits are
 * only ever set, and only by the filter's COW thread; segments are only
 * ever installed while the bitmap lives.  So the request path tests bits
 * without a lock, and init, load and destroy run only while no request
 * can look at the bitmap (the snap is not started).
 */
#ifndef TRAK_SNAP_COWBMP_H
#define TRAK_SNAP_COWBMP_H

#include "trak_env.h"

#define TRAK_COWBMP_SEG_BYTES	4096
#define TRAK_COWBMP_SEG_SHIFT	15	/* chunks per segment: 2^15 */
#define TRAK_COWBMP_SEG_CHUNKS	(1U << TRAK_COWBMP_SEG_SHIFT)

struct trak_file;

struct trak_cowbmp {
	u64 chunks;
	s32 seg_cnt;
	unsigned long **segs;	/* NULL: the segment's bits are all clear */
};

int trak_cowbmp_init(struct trak_cowbmp *bmp, u64 chunks);
int trak_cowbmp_load(struct trak_cowbmp *bmp, const char *fname);
int trak_cowbmp_save(struct trak_cowbmp *bmp, const char *fname);
int trak_cowbmp_destroy(struct trak_cowbmp *bmp);

/*
 * A bit the request path can see must already be durable: a write it lets
 * through to the partition overwrites the chunk for good.  So the COW
 * thread marks a group of chunks in two steps.  Write-ahead writes the
 * bytes of the file that hold the bits of @chunks (ascending), each with
 * the bits already set, and installs the segments the bits will need,
 * without setting any bit in memory.  Once the file is synced, publish
 * sets them in memory.  Either step on a failed write-ahead is an error.
 */
int trak_cowbmp_write_ahead(struct trak_cowbmp *bmp, const u32 *chunks,
			    u32 cnt, gfp_t gfp, struct trak_file *file);
void trak_cowbmp_publish(struct trak_cowbmp *bmp, const u32 *chunks, u32 cnt);

/*
 * 1 when @chunk is preserved, 0 when not, -EINVAL (logged) for a bitmap
 * with no segment array: callers take any non-zero answer as preserved.
 * Runs on the request path: no lock, no sleep.
 */
int trak_cowbmp_test_bit(const struct trak_cowbmp *bmp, u32 chunk);

#endif
