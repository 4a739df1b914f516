/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Data-block bitmap: one bit per chunk of a partition, set when a file
 * system block inside the chunk is in use.  Kept in segments of 2^20 chunk
 * bits, each stored as equal fragments of which the all-zero and all-one
 * ones are shared.
 */
#ifndef TRAK_FSMAP_BLKBMP_H
#define TRAK_FSMAP_BLKBMP_H

#include "trak_env.h"

#define TRAK_BLKBMP_SEG_SHIFT	20
#define TRAK_BLKBMP_SEG_CHUNKS	(1U << TRAK_BLKBMP_SEG_SHIFT)
#define TRAK_BLKBMP_SEG_BYTES	(TRAK_BLKBMP_SEG_CHUNKS / 8)

/* One segment's bits, made by create_sa(). */
struct trak_blkbmp_sa {
	u32 frag_cnt;
	u32 idx_shift;	/* log2(frag_size) + 3 */
	u32 frag_size;	/* bytes, a power of two */
	u32 bit_mask;	/* frag_size * 8 - 1 */
	u32 pool_shift;	/* log2(frag_size) */
	u16 *idx;	/* pool slot of each fragment */
	u8 *pool;	/* fragment contents, slot after slot */
};

struct trak_blkbmp {
	s32 valid;
	s32 chunks;
	s32 segments;
	struct trak_blkbmp_sa *sa;
};

/*
 * Chunk bit @i of a bit buffer: bit i % 64 of 64-bit word i / 64, which on
 * a little-endian machine is bit i % 8 of byte i / 8.  Bytes are used so
 * that a buffer need not be a whole number of words long.
 */
static inline void trak_chunk_set(void *bits, u32 i)
{
	((u8 *)bits)[i >> 3] |= 1U << (i & 7);
}

static inline bool trak_chunk_test(const void *bits, u32 i)
{
	return (((const u8 *)bits)[i >> 3] >> (i & 7)) & 1;
}

/*
 * One step of a reader's walk over an allocation bitmap @map, turning its
 * block bits into chunk bits of @bpc blocks each: @bit is the block bit to
 * look at, @left the blocks of the current chunk not yet looked at, @out
 * the current chunk.  A used block sets the chunk and jumps over the rest
 * of it; a chunk whose blocks are all free is left clear.
 */
static inline void trak_chunk_walk_step(const void *map, u32 *bit, u32 *left,
					u32 bpc, void *bits, u32 *out)
{
	if (trak_chunk_test(map, *bit)) {
		trak_chunk_set(bits, (*out)++);
		*bit += *left;
		*left = bpc;
	} else {
		(*bit)++;
		if (--*left == 0) {
			(*out)++;
			*left = bpc;
		}
	}
}

/*
 * Whether chunk @chunk may hold data.  Runs on the I/O path: no locks, no
 * sleeping; an invalid bitmap makes every chunk count as data.
 */
static inline bool trak_blkbmp_has_data(const struct trak_blkbmp *bmp,
					u32 chunk)
{
	const struct trak_blkbmp_sa *sa;
	u32 b;

	if (!bmp->valid || chunk >= (u32)bmp->chunks)
		return true;
	sa = &bmp->sa[chunk >> TRAK_BLKBMP_SEG_SHIFT];
	b = chunk & (TRAK_BLKBMP_SEG_CHUNKS - 1);
	return trak_chunk_test(sa->pool +
			       ((u32)sa->idx[b >> sa->idx_shift] <<
				sa->pool_shift),
			       b & sa->bit_mask);
}

int trak_blkbmp_init(struct trak_blkbmp *bmp);
int trak_blkbmp_read(struct trak_blkbmp *bmp, struct block_device *bdev,
		     u32 chunk_size);
int trak_blkbmp_export(const struct trak_blkbmp *bmp, s32 k, u64 *out,
		       s32 size);
int trak_blkbmp_destroy(struct trak_blkbmp *bmp);

/*
 * Sizes (@size_only) or builds @sa from the @c fragments of @z bytes at
 * @bits.  Returns the size in bytes of the slot table and the pool, or
 * -ENOMEM.
 */
int create_sa(struct trak_blkbmp_sa *sa, u32 c, u32 z, const u8 *bits,
	      bool size_only);

#endif
