/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The snaps of a filter, as the request path and the COW thread see them.
 * A filter's snaps list runs from the oldest snap to the newest.  A chunk
 * that a newer snap preserved holds what an older snap shows too: a chunk
 * changed between the two would have been preserved by the older one.
 *
 * Callers keep the list still: the request path holds the filter's
 * io_lock for reading, the COW thread the registry lock.
 */
#ifndef TRAK_SNAP_SNAPS_H
#define TRAK_SNAP_SNAPS_H

#include "block/registry.h"

/* Started and valid: its COW store takes and gives preserved chunks. */
static inline bool trak_snap_usable(const struct trak_blkdev *snap)
{
	return READ_ONCE(snap->started) && READ_ONCE(snap->snap.snap_valid);
}

/* Usable, and not waiting to stop: its device may be read. */
static inline bool trak_snap_readable(const struct trak_blkdev *snap)
{
	return trak_snap_usable(snap) && !READ_ONCE(snap->snap.stop_pending);
}

/* The newest started snap of @filter, whose store held writes fill; -1. */
s32 trak_snap_stamp(struct trak_blkdev *filter);
/*
 * Whether a write to sectors @first..@last must wait until its chunks are
 * preserved.  The newest started snap decides: none of its chunks to
 * keep when it is invalid or has them all; some when any holds data.  A
 * write to chunks free for it is asked of the snap before it.
 */
bool trak_snap_write_needs_cow(struct trak_blkdev *filter, sector_t first,
			       sector_t last);
/* The first usable snap, @snap or a newer one, that preserved @chunk. */
struct trak_blkdev *trak_snap_keeper(struct trak_blkdev *snap, u32 chunk);
/* Whether a chunk from @first to @last has a keeper. */
bool trak_snap_any_kept(struct trak_blkdev *snap, u32 first, u32 last);
/*
 * Preserving for @snap failed at @stage: it and every started snap before
 * it (they rely on its store) become invalid, and their data is dropped.
 */
void trak_snap_invalidate(struct trak_blkdev *snap, const char *stage);
/*
 * A write reaches the partition: every snap that is not started, and that
 * no started valid snap newer than it preserves for, no longer matches its
 * COW files, and cannot be resumed as valid.
 */
void trak_snap_note_origin_write(struct trak_blkdev *filter);

#endif
