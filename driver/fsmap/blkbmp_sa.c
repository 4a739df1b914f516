// SPDX-License-Identifier: GPL-2.0
/*
 * Compressed store of one bitmap segment: equal fragments, of which one
 * all-zero and one all-ones copy are shared by every uniform fragment.
 */
#include "blkbmp.h"

/* Whether all @z bytes of @frag equal @v (32 bits at a time when z >= 4). */
static bool frag_is(const u8 *frag, u32 z, u8 v)
{
	const u32 word = v * 0x01010101U;
	u32 i;

	if (frag[0] != v)
		return false;
	if (z < 4) {
		for (i = 1; i < z; i++)
			if (frag[i] != v)
				return false;
		return true;
	}
	for (i = 0; i < z; i += 4)
		if (*(const u32 *)(frag + i) != word)
			return false;
	return true;
}

int create_sa(struct trak_blkbmp_sa *sa, u32 c, u32 z, const u8 *bits,
	      bool size_only)
{
	bool zeros = false, ones = false;
	u32 f, slot, ones_slot, size = 2 * c;
	const u8 *frag;

	for (f = 0, frag = bits; f < c; f++, frag += z) {
		if (frag_is(frag, z, 0))
			zeros = true;
		else if (frag_is(frag, z, 0xFF))
			ones = true;
		else
			size += z;
	}
	size += z * (zeros + ones);
	if (size_only)
		return size;

	sa->idx = vmalloc(2 * c);
	sa->pool = vmalloc(size - 2 * c);
	if (!sa->idx || !sa->pool) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		vfree(sa->idx);
		vfree(sa->pool);
		sa->idx = NULL;
		sa->pool = NULL;
		return -ENOMEM;
	}

	slot = 0;
	if (zeros)
		memset(sa->pool + z * slot++, 0, z);
	ones_slot = slot;
	if (ones)
		memset(sa->pool + z * slot++, 0xFF, z);
	for (f = 0, frag = bits; f < c; f++, frag += z) {
		if (frag_is(frag, z, 0)) {
			sa->idx[f] = 0;
		} else if (frag_is(frag, z, 0xFF)) {
			sa->idx[f] = ones_slot;
		} else {
			/* Slot numbers are 16 bits wide, see trak_blkbmp_read(). */
			sa->idx[f] = slot;
			memcpy(sa->pool + (size_t)z * slot++, frag, z);
		}
	}

	sa->frag_cnt = c;
	sa->frag_size = z;
	sa->pool_shift = ilog2(z);
	sa->idx_shift = sa->pool_shift + 3;
	sa->bit_mask = z * 8 - 1;
	return size;
}
