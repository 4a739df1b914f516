// SPDX-License-Identifier: GPL-2.0
/*
 * The write guard of a filter node.  A bitmap file saved clean is trusted
 * by the next load, so a write whose extents the file lacks must not
 * reach the partition before the file is marked dirty on disk: a crash in
 * between would leave a clean file without the change.  Such a write is
 * held, with every write after it, until its dirty mark is written; that
 * costs one wait per bitmap per save.  Writes to extents the file already
 * has, and every write while both files are marked, pass at once.
 *
 * The bits are set before a write is held, so a held write is in the
 * bitmaps like any other; a write that later fails still leaves its
 * extents marked.
 */
#include <linux/atomic.h>
#include <linux/bitops.h>
#include <linux/blkdev.h>

#include "bitmap.h"
#include "block/registry.h"
#include "guard.h"
#include "kdirtyd.h"

void trak_guard_init(struct trak_blkdev *dev)
{
	struct trak_guard *g = &dev->filter.guard;
	unsigned int kind;

	spin_lock_init(&g->lock);
	bio_list_init(&g->held);
	init_waitqueue_head(&g->wait);
	for (kind = 0; kind < ARRAY_SIZE(g->req); kind++)
		trak_dirty_req_init(&g->req[kind], dev, kind);
}

/*
 * Sets the bits of extents first..last; true when one of them was clear.
 * Bits that are set already are only read, so that the steady state
 * costs no atomics.
 */
static bool trak_mark_bitmap(unsigned long *bits, int *dirty,
			     unsigned long first, unsigned long last)
{
	bool fresh = false;
	unsigned long e;

	for (e = first; e <= last; e++) {
		if (!test_bit(e, bits) && !test_and_set_bit(e, bits))
			fresh = true;
	}
	/* The first change since the flag was cleared raises it. */
	if (fresh && !READ_ONCE(*dirty))
		cmpxchg(dirty, 0, 1);
	return fresh;
}

/* Marks a write's extents in both bitmaps; the kinds it changed, as bits. */
static unsigned int trak_mark_write(struct trak_blkdev *dev, struct bio *bio)
{
	struct trak_filter *f = &dev->filter;
	unsigned int shift = f->extent_shift - SECTOR_SHIFT;
	unsigned long first, last;
	unsigned int fresh = 0;

	if (!bio_sectors(bio))
		return 0;
	first = bio->bi_iter.bi_sector >> shift;
	last = (bio_end_sector(bio) - 1) >> shift;
	if (f->incr_bmp &&
	    trak_mark_bitmap(f->incr_bmp, &f->incr_bmp_dirty, first, last))
		fresh |= BIT(TRAK_BMP_INCR);
	if (f->diff_bmp &&
	    trak_mark_bitmap(f->diff_bmp, &f->diff_bmp_dirty, first, last))
		fresh |= BIT(TRAK_BMP_DIFF);
	return fresh;
}

/* Nobody is writing the file: neither kdirtyd nor a save. */
static bool trak_bmp_file_at_rest(u8 state)
{
	return state == TRAK_BMP_FILE_DIRTY || state == TRAK_BMP_FILE_CLEAN;
}

static bool trak_bmp_file_may_be_clean(u8 state)
{
	return state == TRAK_BMP_FILE_CLEAN || state == TRAK_BMP_FILE_MARKING ||
	       state == TRAK_BMP_FILE_CLEANING;
}

/* Whether writes must wait: a mark they need is not on disk yet. */
static bool trak_guard_holding(const struct trak_guard *g)
{
	unsigned int kind;

	for (kind = 0; kind < ARRAY_SIZE(g->file); kind++) {
		if (g->file[kind] == TRAK_BMP_FILE_MARKING ||
		    (g->file[kind] == TRAK_BMP_FILE_CLEANING && g->remark[kind]))
			return true;
	}
	return false;
}

/* Called with @g->lock held after a change of @g->file. */
static void trak_guard_changed(struct trak_guard *g)
{
	g->guarded = trak_bmp_file_may_be_clean(g->file[TRAK_BMP_INCR]) ||
		     trak_bmp_file_may_be_clean(g->file[TRAK_BMP_DIFF]);
	wake_up_all(&g->wait);
}

/* A write set bits of @kind that the file may not have. */
static void trak_guard_fresh(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_guard *g = &dev->filter.guard;

	switch (g->file[kind]) {
	case TRAK_BMP_FILE_CLEAN:
		g->file[kind] = TRAK_BMP_FILE_MARKING;
		trak_sched_write_dirty_flag(dev, kind, true);
		break;
	case TRAK_BMP_FILE_CLEANING:
		/* The save asks for the mark once its clean flag is written. */
		g->remark[kind] = true;
		break;
	default:
		break;
	}
}

/*
 * Marks a write's extents and decides whether it must wait for a dirty
 * mark; a held write is kept here until trak_guard_marked() hands it back.
 * Called with the filter's io_lock held for reading.
 */
bool trak_guard_write(struct trak_blkdev *dev, struct bio *bio)
{
	struct trak_guard *g = &dev->filter.guard;
	unsigned int fresh, kind;
	bool hold;

	/* Both files read as dirty: nothing to wait for, and no lock. */
	if (!READ_ONCE(g->guarded)) {
		trak_mark_write(dev, bio);
		return false;
	}

	/*
	 * Under the lock, so that a write to an extent that another write
	 * has just set sees the mark that one asked for.
	 */
	spin_lock(&g->lock);
	fresh = trak_mark_write(dev, bio);
	for (kind = 0; kind < ARRAY_SIZE(g->file); kind++) {
		if (fresh & BIT(kind))
			trak_guard_fresh(dev, kind);
	}
	/*
	 * kdirtyd's own writes, to bitmap files on this node, never wait:
	 * this node's mark may be queued behind the one kdirtyd is writing.
	 */
	hold = trak_guard_holding(g) && !trak_in_kdirtyd();
	if (hold)
		bio_list_add(&g->held, bio);
	spin_unlock(&g->lock);
	return hold;
}

/*
 * The dirty mark of @kind is on disk, or could not be written (the error
 * is logged; holding writes any longer would only stop the node).  The
 * held writes move to @release once no other mark is awaited.
 */
void trak_guard_marked(struct trak_blkdev *dev, unsigned int kind,
		       bool settling, struct bio_list *release)
{
	struct trak_guard *g = &dev->filter.guard;

	spin_lock(&g->lock);
	g->file[kind] = settling ? TRAK_BMP_FILE_SETTLING : TRAK_BMP_FILE_DIRTY;
	if (!trak_guard_holding(g)) {
		bio_list_merge(release, &g->held);
		bio_list_init(&g->held);
	}
	trak_guard_changed(g);
	spin_unlock(&g->lock);
}

/* The marked file of @kind has been cut to its short form. */
void trak_guard_settled(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_guard *g = &dev->filter.guard;

	spin_lock(&g->lock);
	if (g->file[kind] == TRAK_BMP_FILE_SETTLING)
		g->file[kind] = TRAK_BMP_FILE_DIRTY;
	trak_guard_changed(g);
	spin_unlock(&g->lock);
}

/*
 * A save or a command needs the file of @kind marked dirty: true when it
 * is; otherwise kdirtyd has the mark to write (asked for here if nobody
 * has yet), and the caller waits for it.  The mark is left to kdirtyd even
 * then: its writes, unlike the caller's, never wait for another node's.
 */
bool trak_guard_request_mark(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_guard *g = &dev->filter.guard;
	u8 state;

	spin_lock(&g->lock);
	state = g->file[kind];
	if (state == TRAK_BMP_FILE_CLEAN) {
		g->file[kind] = TRAK_BMP_FILE_MARKING;
		/* The caller rewrites the file: no need to shorten it. */
		trak_sched_write_dirty_flag(dev, kind, false);
	}
	spin_unlock(&g->lock);
	return state == TRAK_BMP_FILE_DIRTY;
}

/* Waits until nobody writes the file of @kind (kdirtyd or a save). */
void trak_guard_wait_settled(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_guard *g = &dev->filter.guard;

	wait_event(g->wait, trak_bmp_file_at_rest(READ_ONCE(g->file[kind])));
}

/*
 * A save has written its copy of @kind's bitmap, marked dirty.  True when
 * no write changed the bitmap since the copy: the save may then write the
 * clean flag, and until it has, writes that set new bits wait.
 */
bool trak_guard_begin_clean(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_filter *f = &dev->filter;
	struct trak_guard *g = &f->guard;
	bool clean;

	oxwrite_lock(&f->io_lock);
	spin_lock(&g->lock);
	clean = !READ_ONCE(*trak_bmp_of(dev, kind).dirty);
	if (clean) {
		g->file[kind] = TRAK_BMP_FILE_CLEANING;
		g->remark[kind] = false;
		trak_guard_changed(g);
	}
	spin_unlock(&g->lock);
	oxwrite_unlock(&f->io_lock);
	return clean;
}

/* The clean flag of @kind is written, or failed and may be. */
void trak_guard_end_clean(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_guard *g = &dev->filter.guard;

	spin_lock(&g->lock);
	g->file[kind] = TRAK_BMP_FILE_CLEAN;
	if (g->remark[kind]) {
		g->remark[kind] = false;
		g->file[kind] = TRAK_BMP_FILE_MARKING;
		trak_sched_write_dirty_flag(dev, kind, true);
	}
	trak_guard_changed(g);
	spin_unlock(&g->lock);
}

/*
 * A load replaced the bitmap of @kind by its file (@accepted) or by all
 * ones.  Called with the filter's io_lock held for writing.  A mark under
 * way is left to finish: the file then reads as dirty, which is safe.
 */
void trak_guard_loaded(struct trak_blkdev *dev, unsigned int kind,
		       bool accepted)
{
	struct trak_guard *g = &dev->filter.guard;

	spin_lock(&g->lock);
	if (trak_bmp_file_at_rest(g->file[kind])) {
		g->file[kind] = accepted ? TRAK_BMP_FILE_CLEAN :
					   TRAK_BMP_FILE_DIRTY;
		trak_guard_changed(g);
	}
	spin_unlock(&g->lock);
}

/* No dirty-flag work on the node's files is under way, and no write waits. */
bool trak_guard_idle(struct trak_blkdev *dev)
{
	struct trak_guard *g = &dev->filter.guard;
	unsigned int kind;
	bool idle;

	spin_lock(&g->lock);
	idle = bio_list_empty(&g->held);
	for (kind = 0; kind < ARRAY_SIZE(g->file); kind++) {
		if (!trak_bmp_file_at_rest(g->file[kind]))
			idle = false;
	}
	spin_unlock(&g->lock);
	return idle;
}
