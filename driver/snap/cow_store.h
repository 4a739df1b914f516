/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The COW store of one snap: its COW data file and its COW bitmap (file
 * and memory).  The data file is a sparse image of the partition: the
 * preserved contents of partition bytes [x, x + 4096) are stored at file
 * offset x; there is no header.  Which chunks are preserved is the
 * bitmap's to say.
 *
 * The store knows files and chunk numbers only: what to preserve, and
 * when, is the COW engine's business (cowthread.c, route.c).  Shared with
 * the host tests.
 */
#ifndef TRAK_SNAP_COW_STORE_H
#define TRAK_SNAP_COW_STORE_H

#include "cowbmp.h"
#include "trak_env.h"

struct trak_file;

struct trak_cow_store {
	struct trak_cowbmp bmp;
	struct trak_file *data_file;	/* open while the snap is started */
	struct trak_file *bmp_file;
};

/* Where a snap's store lives, and the sizes its files have while valid. */
struct trak_cow_store_geometry {
	const char *data_fname;
	u64 data_size;
	const char *bmp_fname;
	u32 bmp_size;
	u64 chunks;
};

/*
 * A new point in time: creates (truncating) both files at their full
 * sizes, and an empty bitmap of @g->chunks bits.
 */
int trak_cow_store_create(struct trak_cow_store *s,
			  const struct trak_cow_store_geometry *g);
/*
 * An earlier point in time: opens both files and, for a snap resumed as
 * @valid, checks their sizes (-EINVAL when they cannot back a valid snap)
 * and loads the bitmap.  An invalid snap's store gets an empty bitmap.
 */
int trak_cow_store_open(struct trak_cow_store *s,
			const struct trak_cow_store_geometry *g, bool valid);
/* Closes the files and frees the bitmap; accepts a store never opened. */
void trak_cow_store_close(struct trak_cow_store *s);

/* Whether @chunk is preserved; see trak_cowbmp_test_bit(). */
static inline bool trak_cow_store_has(const struct trak_cow_store *s,
				      u32 chunk)
{
	return trak_cowbmp_test_bit(&s->bmp, chunk) != 0;
}

/* The preserved contents at partition byte @off: 0 or a negative errno. */
int trak_cow_store_write(struct trak_cow_store *s, loff_t off,
			 const void *buf, int len);
int trak_cow_store_read(struct trak_cow_store *s, loff_t off, void *buf,
			int len);
int trak_cow_store_sync_data(struct trak_cow_store *s);

/*
 * Marks @chunks (ascending) preserved in the bitmap file only; once
 * synced, publish them to the request path.
 */
int trak_cow_store_mark_ahead(struct trak_cow_store *s, const u32 *chunks,
			      u32 cnt, gfp_t gfp);
int trak_cow_store_sync_bitmap(struct trak_cow_store *s);
void trak_cow_store_publish(struct trak_cow_store *s, const u32 *chunks,
			    u32 cnt);

/*
 * An invalid snap is invalid for good: both files are emptied, durably,
 * so that no later resume can take them for a valid snap, and the data's
 * space is given back.
 */
int trak_cow_store_discard(struct trak_cow_store *s);

#endif
