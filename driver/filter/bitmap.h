/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_FILTER_BITMAP_H
#define TRAK_FILTER_BITMAP_H

#include "block/registry.h"

/*
 * A change bitmap file: "TRAKBMP", a dirty byte, the bitmap size and the
 * JAMCRC of the bitmap (little-endian), then the bitmap itself.  A file
 * marked dirty is only the magic and the dirty byte.
 */
#define TRAK_BMP_MAGIC		"TRAKBMP"
#define TRAK_BMP_MAGIC_LEN	7
#define TRAK_BMP_HEADER_LEN	16

/* One kind of change bitmap of a filter: its bits, size, flag and file. */
struct trak_bmp_ref {
	unsigned long *bits;
	u32 size;		/* bytes */
	int *dirty;
	const char *fname;
	const char *kind_name;
};

struct trak_bmp_ref trak_bmp_of(struct trak_blkdev *dev, unsigned int kind);
const char *trak_bmp_kind_name(unsigned int kind);
u32 trak_bmp_alloc_size(u32 size);

/*
 * A change of a live bitmap by a command: @apply(bits, src, nbits) runs
 * with writes held off.  @adds_bits when it may set bits.
 */
struct trak_bmp_edit {
	void (*apply)(unsigned long *bits, const unsigned long *src,
		      unsigned int nbits);
	const unsigned long *src;
	bool adds_bits;
};

void trak_crc32(const u8 *buf, int len, u32 *crc);
int trak_block_load_bmp(struct trak_blkdev *dev, unsigned int kind);
int trak_block_save_bmp(struct trak_blkdev *dev, unsigned int kind);
int trak_block_save_dirty_bmps(struct trak_blkdev *dev);
int trak_block_edit_bmp(struct trak_blkdev *dev, unsigned int kind,
			const struct trak_bmp_edit *edit);
int trak_block_write_dirty_flag(struct trak_blkdev *dev, unsigned int kind,
				int flag);
void trak_block_truncate_dirty_bmp(struct trak_blkdev *dev, unsigned int kind);

#endif
