// SPDX-License-Identifier: GPL-2.0
/* Walks over the snaps of a filter: which must preserve, which preserved. */
#include "block/disk.h"
#include "core/log.h"
#include "core/params.h"
#include "snaps.h"

static u32 trak_snap_chunk(const struct trak_blkdev *snap, sector_t sector)
{
	return sector >> (snap->snap.chunk_shift - SECTOR_SHIFT);
}

s32 trak_snap_stamp(struct trak_blkdev *filter)
{
	struct trak_blkdev *snap;

	list_for_each_entry_reverse(snap, &filter->filter.snaps,
				    snap.snap_link) {
		if (READ_ONCE(snap->started))
			return snap->minor;
	}
	return -1;
}

bool trak_snap_write_needs_cow(struct trak_blkdev *filter, sector_t first,
			       sector_t last)
{
	struct trak_blkdev *snap;
	u32 c, c0, c1, data, kept;

	list_for_each_entry_reverse(snap, &filter->filter.snaps,
				    snap.snap_link) {
		if (!READ_ONCE(snap->started))
			continue;
		if (!READ_ONCE(snap->snap.snap_valid))
			return false;
		c0 = trak_snap_chunk(snap, first);
		c1 = trak_snap_chunk(snap, last);
		data = 0;
		kept = 0;
		for (c = c0; c <= c1; c++) {
			data += trak_blkbmp_has_data(&snap->snap.datablock_bmp, c);
			kept += trak_cow_store_has(&snap->snap.store, c);
		}
		if (kept == c1 - c0 + 1)
			return false;
		if (data)
			return true;
	}
	return false;
}

struct trak_blkdev *trak_snap_keeper(struct trak_blkdev *snap, u32 chunk)
{
	struct list_head *snaps = &snap->snap.filter->filter.snaps;
	struct trak_blkdev *s = snap;

	list_for_each_entry_from(s, snaps, snap.snap_link) {
		if (trak_snap_usable(s) && trak_cow_store_has(&s->snap.store, chunk))
			return s;
	}
	return NULL;
}

bool trak_snap_any_kept(struct trak_blkdev *snap, u32 first, u32 last)
{
	u32 c;

	for (c = first; c <= last; c++) {
		if (trak_snap_keeper(snap, c))
			return true;
	}
	return false;
}

/*
 * The invalid state reaches the COW files before the request path sees it:
 * from then on writes to the chunks this snap did not preserve go through,
 * and a crash must not leave files that a resume would take for a valid
 * snap's.
 */
void trak_snap_invalidate(struct trak_blkdev *snap, const char *stage)
{
	struct list_head *snaps = &snap->snap.filter->filter.snaps;
	struct trak_blkdev *s = snap;
	int rc;

	list_for_each_entry_from_reverse(s, snaps, snap.snap_link) {
		if (!READ_ONCE(s->started) || !READ_ONCE(s->snap.snap_valid))
			continue;
		trak_log(1, "%s(): Invalidating snap device trak(%d, %d)", stage,
			 trak_blk_major, s->snap.snap_minor);
		rc = trak_cow_store_discard(&s->snap.store);
		if (rc)
			trak_log(TRAK_LOG_ERR,
				 "%s(): Failed to empty the COW files of trak(%d, %d): %d",
				 stage, trak_blk_major, s->snap.snap_minor, rc);
		WRITE_ONCE(s->snap.snap_valid, 0);
		trak_disk_announce_invalid(s);
	}
}

void trak_snap_note_origin_write(struct trak_blkdev *filter)
{
	struct trak_blkdev *snap;

	list_for_each_entry_reverse(snap, &filter->filter.snaps,
				    snap.snap_link) {
		if (trak_snap_usable(snap))
			return;
		if (!READ_ONCE(snap->started) &&
		    !READ_ONCE(snap->snap.origin_written))
			WRITE_ONCE(snap->snap.origin_written, 1);
	}
}
