// SPDX-License-Identifier: GPL-2.0
/*
 * kcowd.  One pass takes the queue from its head: a request is passed on
 * when nothing it needs is missing, served here when it is a snap read
 * that needs a COW store, or left waiting while the first chunk it needs
 * preserved joins the pass's group.  The group is then read from the
 * partition in parallel, written to the COW data file, synced, marked in
 * the COW bitmap file, synced again, and only then marked in memory; the
 * writes that waited for it go on in the next pass, when their chunks test
 * as preserved.
 */
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/highmem.h>
#include <linux/kthread.h>
#include <linux/sched/mm.h>
#include <linux/slab.h>
#include <linux/sort.h>

#include "block/registry.h"
#include "core/log.h"
#include "core/params.h"
#include "cowthread.h"
#include "snaps.h"

#define TRAK_COW_DEFAULT_NAME	"kcowd"

/* The working storage of a running thread, made before it starts. */
struct trak_cow_work {
	struct trak_cowthread *ctl;
	struct page *pages[TRAK_COW_GROUP_PAGES];
	struct bio *bios[TRAK_COW_GROUP_PAGES];
	u32 chunks[TRAK_COW_GROUP_PAGES];	/* the group's chunks */
	void *bounce;				/* one page from a COW data file */
	atomic_t reads_left;			/* of the group's page reads */
	wait_queue_head_t reads_done;
};

/* The group a pass collects: chunks of one snap, to preserve together. */
struct trak_cow_group {
	u32 cnt;
	s32 snap_minor;
	u32 chunk_size;			/* 0 until the pass meets a snap */
	u32 chunk_shift;
	u32 limit;			/* chunks in 4 MiB */
};

void trak_cowthread_init(struct trak_cowthread *ctl)
{
	memset(ctl, 0, sizeof(*ctl));
	mutex_init(&ctl->store_lock);
}

static void trak_cow_work_free(struct trak_cow_work *w)
{
	int i;

	for (i = 0; i < TRAK_COW_GROUP_PAGES; i++) {
		if (w->pages[i])
			__free_page(w->pages[i]);
		kfree(w->bios[i]);
	}
	kfree(w->bounce);
	kvfree(w);
}

static struct trak_cow_work *trak_cow_work_alloc(struct trak_cowthread *ctl)
{
	struct trak_cow_work *w;
	int i;

	w = kvzalloc(sizeof(*w), GFP_KERNEL);
	if (!w)
		return NULL;
	w->ctl = ctl;
	atomic_set(&w->reads_left, 0);
	init_waitqueue_head(&w->reads_done);
	w->bounce = kmalloc(PAGE_SIZE, GFP_KERNEL);
	if (!w->bounce)
		goto fail;
	for (i = 0; i < TRAK_COW_GROUP_PAGES; i++) {
		w->pages[i] = alloc_page(GFP_KERNEL);
		w->bios[i] = bio_kmalloc(1, GFP_KERNEL);
		if (!w->pages[i] || !w->bios[i])
			goto fail;
	}
	return w;
fail:
	trak_cow_work_free(w);
	return NULL;
}

static struct trak_filter *trak_cow_filter(struct trak_cow_work *w)
{
	return &w->ctl->dev->filter;
}

/* The started, valid snap of this filter with @minor, or NULL. */
static struct trak_blkdev *trak_cow_live_snap(struct trak_cow_work *w,
					      s32 minor)
{
	struct trak_blkdev *snap = trak_blkdev_find(minor);

	if (!snap || snap->dev_type != TRAK_DEV_SNAP ||
	    snap->snap.filter != w->ctl->dev)
		return NULL;
	return trak_snap_usable(snap) ? snap : NULL;
}

/* Passes @req's bio on to the partition as a tracked clone. */
static void trak_cow_pass_down(struct trak_cow_work *w,
			       struct trak_cow_request *req)
{
	struct trak_filter *f = trak_cow_filter(w);
	struct bio *bio = req->bio, *clone;

	trak_cowqueue_remove(&f->cowqueue, req);
	clone = trak_aio_clone(&f->aio, bio, f->hdd_bdev, true, GFP_NOIO);
	if (!clone) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to clone BIO", "cow_worker");
		bio_io_error(bio);
		return;
	}
	submit_bio_noacct(clone);
}

static void trak_cow_fail(struct trak_cow_work *w,
			  struct trak_cow_request *req)
{
	struct bio *bio = req->bio;

	trak_cowqueue_remove(&trak_cow_filter(w)->cowqueue, req);
	bio_io_error(bio);
}

static void trak_cow_read_end(struct bio *bio)
{
	complete(bio->bi_private);
}

/*
 * Reads @len bytes at partition @sector into @page at @off and waits.  The
 * read goes as a tracked clone when nothing in flight overlaps it.
 */
static int trak_cow_read_hdd(struct trak_cow_work *w, struct page *page,
			     unsigned int off, unsigned int len,
			     sector_t sector)
{
	struct trak_filter *f = trak_cow_filter(w);
	DECLARE_COMPLETION_ONSTACK(done);
	struct bio_vec bvec;
	struct bio bio, *clone;

	bio_init(&bio, f->hdd_bdev, &bvec, 1, REQ_OP_READ);
	bio.bi_iter.bi_sector = sector;
	__bio_add_page(&bio, page, len, off);
	bio.bi_private = &done;
	bio.bi_end_io = trak_cow_read_end;
	clone = trak_aio_clone(&f->aio, &bio, f->hdd_bdev, false, GFP_NOIO);
	submit_bio_noacct(clone ?: &bio);
	wait_for_completion_io(&done);
	bio_uninit(&bio);
	if (!bio.bi_status)
		return 0;
	trak_log(TRAK_LOG_ERR,
		 "%s(): Failed to read %d bytes starting from sector %lld from device (%d, %d)",
		 "read_from_hdd", len, (long long)sector,
		 MAJOR(f->hdd_dev), MINOR(f->hdd_dev));
	return -EIO;
}

/*
 * One piece of a snap read, inside one chunk: from the first snap, this one
 * or a newer one, that preserved the chunk, else from the partition.
 */
static int trak_cow_read_piece(struct trak_cow_work *w,
			       struct trak_blkdev *snap, struct page *page,
			       unsigned int off, unsigned int len,
			       sector_t sector)
{
	struct trak_blkdev *keeper;
	void *dst;
	int rc;

	keeper = trak_snap_keeper(snap, sector >> (snap->snap.chunk_shift -
						   SECTOR_SHIFT));
	if (!keeper)
		return trak_cow_read_hdd(w, page, off, len, sector);

	rc = trak_cow_store_read(&keeper->snap.store,
				 (loff_t)sector << SECTOR_SHIFT, w->bounce, len);
	if (rc)
		return rc;
	dst = kmap_local_page(page);
	memcpy(dst + off, w->bounce, len);
	kunmap_local(dst);
	return 0;
}

/* Serves a snap read here, piece by piece, and ends it. */
static void trak_cow_serve_read(struct trak_cow_work *w,
				struct trak_cow_request *req,
				struct trak_blkdev *snap)
{
	u32 chunk_sectors = snap->snap.chunk_size >> SECTOR_SHIFT;
	struct bio *bio = req->bio;
	struct bvec_iter iter;
	struct bio_vec bv;
	unsigned int done, piece;
	sector_t sector;
	int rc = 0;

	bio_for_each_segment(bv, bio, iter) {
		sector = iter.bi_sector;
		for (done = 0; !rc && done < bv.bv_len; done += piece) {
			piece = min_t(u32, bv.bv_len - done,
				      (chunk_sectors - (sector & (chunk_sectors - 1)))
				      << SECTOR_SHIFT);
			rc = trak_cow_read_piece(w, snap, bv.bv_page,
						 bv.bv_offset + done, piece,
						 sector);
			sector += piece >> SECTOR_SHIFT;
		}
		if (rc)
			break;
	}
	trak_cowqueue_remove(&trak_cow_filter(w)->cowqueue, req);
	if (rc)
		bio_io_error(bio);
	else
		bio_endio(bio);
}

/* Takes the chunk geometry of the first snap a pass meets. */
static void trak_cow_group_size(struct trak_cow_group *g,
				const struct trak_blkdev *snap)
{
	if (g->chunk_size)
		return;
	g->chunk_size = snap->snap.chunk_size;
	g->chunk_shift = snap->snap.chunk_shift;
	g->limit = TRAK_COW_GROUP_BYTES >> g->chunk_shift;
}

static u32 trak_cow_chunk_of(sector_t sector, u32 chunk_shift)
{
	return sector >> (chunk_shift - SECTOR_SHIFT);
}

static void trak_cow_group_add(struct trak_cow_work *w,
			       struct trak_cow_group *g, u32 chunk)
{
	u32 i;

	for (i = 0; i < g->cnt; i++) {
		if (w->chunks[i] == chunk)
			return;
	}
	w->chunks[g->cnt++] = chunk;
}

/*
 * Adds the chunks of @req that @snap has not preserved to the group, as
 * many as it holds; returns how many are missing, in the group or not.
 */
static u32 trak_cow_add_missing(struct trak_cow_work *w,
				struct trak_cow_group *g,
				struct trak_cow_request *req,
				struct trak_blkdev *snap)
{
	u32 c, missing = 0, last = trak_cow_chunk_of(req->last, g->chunk_shift);

	for (c = trak_cow_chunk_of(req->first, g->chunk_shift); c <= last; c++) {
		if (trak_cow_store_has(&snap->snap.store, c))
			continue;
		missing++;
		if (g->cnt < g->limit)
			trak_cow_group_add(w, g, c);
	}
	return missing;
}

enum trak_cow_step { TRAK_COW_NEXT, TRAK_COW_GROUP_FULL };

/*
 * A held write to the filter: pass it on, or let the chunks it waits for
 * join the group.  All of them join at once, so that a large write waits
 * for one group, not one for each of its chunks.
 */
static enum trak_cow_step trak_cow_filter_write(struct trak_cow_work *w,
						struct trak_cow_request *req,
						struct trak_cow_group *g)
{
	struct trak_blkdev *snap = NULL;

	if (req->snap_minor >= 0)
		snap = trak_cow_live_snap(w, req->snap_minor);
	if (!snap) {
		trak_cow_pass_down(w, req);
		return TRAK_COW_NEXT;
	}
	trak_cow_group_size(g, snap);
	/* Chunks of one snap only: its COW store receives the whole group. */
	if (g->cnt && g->snap_minor != req->snap_minor)
		return TRAK_COW_GROUP_FULL;
	if (!trak_cow_add_missing(w, g, req, snap)) {
		trak_cow_pass_down(w, req);
		return TRAK_COW_NEXT;
	}
	g->snap_minor = req->snap_minor;
	return g->cnt >= g->limit ? TRAK_COW_GROUP_FULL : TRAK_COW_NEXT;
}

/* A snap read: pass it on unless a COW store holds any of its chunks. */
static void trak_cow_snap_read(struct trak_cow_work *w,
			       struct trak_cow_request *req,
			       struct trak_blkdev *snap,
			       struct trak_cow_group *g)
{
	u32 shift = snap->snap.chunk_shift;

	trak_cow_group_size(g, snap);
	if (trak_snap_any_kept(snap, trak_cow_chunk_of(req->first, shift),
			       trak_cow_chunk_of(req->last, shift)))
		trak_cow_serve_read(w, req, snap);
	else
		trak_cow_pass_down(w, req);
}

/*
 * The node a queued bio is for: the filter itself or one of its snaps that
 * may still be read.  NULL (after ending the bio) for anything else.
 */
static struct trak_blkdev *trak_cow_target(struct trak_cow_work *w,
					   struct trak_cow_request *req)
{
	struct gendisk *disk = req->bio->bi_bdev->bd_disk;
	struct trak_blkdev *filter = w->ctl->dev, *dev;

	if (disk->major != trak_blk_major) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Request to unknown block device in COW request queue",
			 "cow_worker");
		trak_cow_fail(w, req);
		return NULL;
	}
	if (disk->first_minor == filter->minor)
		return filter;
	dev = trak_blkdev_find(disk->first_minor);
	if (!dev || dev->dev_type != TRAK_DEV_SNAP ||
	    dev->snap.filter != filter) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Request to unknown trak(%d, %d) in trak(%d, %d) queue",
			 "cow_worker", trak_blk_major, disk->first_minor,
			 trak_blk_major, filter->minor);
		trak_cow_fail(w, req);
		return NULL;
	}
	if (!trak_snap_readable(dev)) {
		trak_cow_fail(w, req);
		return NULL;
	}
	return dev;
}

/* Walks the queue once; returns with the group to preserve, if any. */
static void trak_cow_walk(struct trak_cow_work *w, struct trak_cow_group *g)
{
	struct trak_cowqueue *q = &trak_cow_filter(w)->cowqueue;
	struct trak_cow_request *req, *next;
	struct trak_blkdev *target;

	for (req = trak_cowqueue_next(q, NULL); req; req = next) {
		next = trak_cowqueue_next(q, req);
		target = trak_cow_target(w, req);
		if (!target || trak_cowqueue_overlaps_earlier(q, req))
			continue;
		if (target->dev_type == TRAK_DEV_SNAP)
			trak_cow_snap_read(w, req, target, g);
		else if (!req->write)
			trak_cow_pass_down(w, req);
		else if (trak_cow_filter_write(w, req, g) == TRAK_COW_GROUP_FULL)
			return;
	}
}

static void trak_cow_page_read_end(struct bio *bio)
{
	struct trak_cow_work *w = bio->bi_private;

	if (atomic_dec_and_test(&w->reads_left))
		wake_up(&w->reads_done);
}

/* The partition sector of the group's page @i: chunk after chunk. */
static sector_t trak_cow_page_sector(struct trak_cow_work *w,
				     struct trak_cow_group *g, u32 i)
{
	u32 per_chunk = g->chunk_size >> PAGE_SHIFT;

	return ((sector_t)w->chunks[i / per_chunk] <<
		(g->chunk_shift - SECTOR_SHIFT)) +
	       ((i % per_chunk) << (PAGE_SHIFT - SECTOR_SHIFT));
}

/*
 * How many bytes of the group's page @i lie inside the partition: the last
 * chunk of a partition whose size is not a multiple of the chunk size is
 * partial, and its pages past the end hold nothing.
 */
static u32 trak_cow_page_len(struct trak_cow_work *w, struct trak_cow_group *g,
			     u32 i)
{
	u64 off = (u64)trak_cow_page_sector(w, g, i) << SECTOR_SHIFT;
	u64 size = trak_cow_filter(w)->dev_size;

	return off >= size ? 0 : min_t(u64, size - off, PAGE_SIZE);
}

/*
 * The group's pages that hold any of the partition: a prefix of them, since
 * the chunks are in ascending order and only the last chunk can be partial.
 */
static u32 trak_cow_group_pages(struct trak_cow_work *w,
				struct trak_cow_group *g)
{
	u32 pages = g->cnt << (g->chunk_shift - PAGE_SHIFT);

	while (pages && !trak_cow_page_len(w, g, pages - 1))
		pages--;
	return pages;
}

/* Reads the group's first @pages pages from the partition, all at once. */
static void trak_cow_read_group(struct trak_cow_work *w,
				struct trak_cow_group *g, u32 pages)
{
	struct trak_filter *f = trak_cow_filter(w);
	struct blk_plug plug;
	struct bio *bio, *clone;
	u32 i;

	atomic_set(&w->reads_left, pages);
	blk_start_plug(&plug);
	for (i = 0; i < pages; i++) {
		bio = w->bios[i];
		bio_init(bio, f->hdd_bdev, bio->bi_inline_vecs, 1, REQ_OP_READ);
		bio->bi_iter.bi_sector = trak_cow_page_sector(w, g, i);
		__bio_add_page(bio, w->pages[i], trak_cow_page_len(w, g, i), 0);
		bio->bi_private = w;
		bio->bi_end_io = trak_cow_page_read_end;
		clone = trak_aio_clone(&f->aio, bio, f->hdd_bdev, false,
				       GFP_NOIO);
		submit_bio_noacct(clone ?: bio);
	}
	blk_finish_plug(&plug);
	wait_event(w->reads_done, !atomic_read(&w->reads_left));
}

/*
 * A write may reach the partition once its chunk's copy is durable: copies
 * that might not survive a crash preserve nothing, and the snap goes.
 */
static void trak_cow_check_sync(struct trak_blkdev *snap, int rc,
				const char *stage, const char *fname)
{
	if (!rc || !trak_snap_usable(snap))
		return;
	trak_log(TRAK_LOG_ERR, "%s(): Failed to sync %s: %d", stage, fname, rc);
	trak_snap_invalidate(snap, stage);
}

/* Whether every page read of the group succeeded; names each that failed. */
static bool trak_cow_group_read_ok(struct trak_cow_work *w,
				   struct trak_cow_group *g, u32 pages)
{
	bool ok = true;
	sector_t sector;
	u32 i;

	for (i = 0; i < pages; i++) {
		if (!w->bios[i]->bi_status)
			continue;
		sector = trak_cow_page_sector(w, g, i);
		trak_log(TRAK_LOG_ERR, "%s(): Failed to read %d-byte block #%lld from %s",
			 "cow_chunks", (int)PAGE_SIZE, (long long)(sector >> 12),
			 trak_cow_filter(w)->hdd_name);
		ok = false;
	}
	return ok;
}

/* Writes the group's pages into the COW data file and syncs it. */
static void trak_cow_write_group(struct trak_cow_work *w,
				 struct trak_cow_group *g, u32 pages,
				 struct trak_blkdev *snap)
{
	struct trak_cow_store *store = &snap->snap.store;
	sector_t sector;
	u32 i;

	for (i = 0; i < pages && trak_snap_usable(snap); i++) {
		sector = trak_cow_page_sector(w, g, i);
		if (trak_cow_store_write(store, (loff_t)sector << SECTOR_SHIFT,
					 page_address(w->pages[i]),
					 trak_cow_page_len(w, g, i)))
			trak_snap_invalidate(snap, "write_cowed_page");
	}
	trak_cow_check_sync(snap, trak_cow_store_sync_data(store),
			    "write_cowed_page", snap->snap.cow_data_fname);
}

/*
 * Marks the group's chunks: in the bitmap file, synced, and only then in
 * memory, where the request path looks.  A write to a chunk in between is
 * still held, and waits for the next pass.
 */
static void trak_cow_mark_group(struct trak_cow_work *w,
				struct trak_cow_group *g,
				struct trak_blkdev *snap)
{
	struct trak_cow_store *store = &snap->snap.store;

	if (!trak_snap_usable(snap))
		return;
	if (trak_cow_store_mark_ahead(store, w->chunks, g->cnt, GFP_NOIO)) {
		trak_snap_invalidate(snap, "mark_chunk_cowed");
		return;
	}
	trak_cow_check_sync(snap, trak_cow_store_sync_bitmap(store),
			    "mark_chunk_cowed", snap->snap.cow_bmp_fname);
	if (trak_snap_usable(snap))
		trak_cow_store_publish(store, w->chunks, g->cnt);
}

static int trak_cow_chunk_cmp(const void *a, const void *b)
{
	u32 x = *(const u32 *)a, y = *(const u32 *)b;

	return x < y ? -1 : x > y;
}

/* Preserves the group's chunks in the COW store of its snap. */
static void trak_cow_preserve(struct trak_cow_work *w,
			      struct trak_cow_group *g)
{
	struct trak_filter *f = trak_cow_filter(w);
	struct trak_blkdev *snap = trak_cow_live_snap(w, g->snap_minor);
	u32 i, pages;

	if (!snap)
		return;
	/* In partition order: reads in sequence, bitmap bytes written once. */
	sort(w->chunks, g->cnt, sizeof(w->chunks[0]), trak_cow_chunk_cmp, NULL);
	pages = trak_cow_group_pages(w, g);
	trak_log(2, "%s(): COWing %d chunks (%d pages), snap_minor=%d, queue_cnt=%d",
		 "cow_chunks", g->cnt, pages, g->snap_minor,
		 trak_cowqueue_len(&f->cowqueue));

	trak_cow_read_group(w, g, pages);
	if (trak_cow_group_read_ok(w, g, pages))
		trak_cow_write_group(w, g, pages, snap);
	else
		trak_snap_invalidate(snap, "cow_chunks");
	trak_cow_mark_group(w, g, snap);
	for (i = 0; i < pages; i++)
		bio_uninit(w->bios[i]);
}

static void trak_cow_pass(struct trak_cow_work *w)
{
	struct trak_cow_group g = { };

	oxread_lock(&trak_blkdev_rwlock);
	mutex_lock(&w->ctl->store_lock);
	trak_cow_walk(w, &g);
	if (g.cnt)
		trak_cow_preserve(w, &g);
	mutex_unlock(&w->ctl->store_lock);
	oxread_unlock(&trak_blkdev_rwlock);
}

static int trak_cowthread_fn(void *data)
{
	struct trak_cow_work *w = data;
	struct trak_cowqueue *q = &trak_cow_filter(w)->cowqueue;
	unsigned int noio;

	trak_log(1, "%s(): Initializing...", "cowthread");
	trak_log(1, "%s(): COW will be done in groups of %d bytes", "cowthread",
		 TRAK_COW_GROUP_BYTES);
	trak_log(1, "%s(): Preallocated %d pages and %d bio for %d chunks",
		 "cowthread", TRAK_COW_GROUP_PAGES, TRAK_COW_GROUP_PAGES,
		 TRAK_COW_GROUP_PAGES);
	/* Its I/O is what frees memory: reclaim must not wait for it. */
	noio = memalloc_noio_save();
	for (;;) {
		wait_event_interruptible(q->wait, kthread_should_stop() ||
					 trak_cowqueue_len(q));
		trak_log(4, "%s(): mark: wait_event() is over.", "cow_worker");
		if (kthread_should_stop())
			break;
		trak_cow_pass(w);
	}
	memalloc_noio_restore(noio);
	return 0;
}

bool trak_current_is_cowthread(void)
{
	return kthread_func(current) == trak_cowthread_fn;
}

int trak_cowthread_start(struct trak_cowthread *ctl, const char *name,
			 struct trak_blkdev *dev)
{
	struct task_struct *task;

	if (!ctl) {
		trak_log(TRAK_LOG_ERR, "%s(): NULL thread pointer passed as input",
			 __func__);
		return -EINVAL;
	}
	if (ctl->task) {
		trak_log(TRAK_LOG_ERR, "%s(): COW thread is already running: pid=%d",
			 __func__, ctl->pid);
		return -EALREADY;
	}
	strscpy(ctl->name, name && name[0] ? name : TRAK_COW_DEFAULT_NAME,
		sizeof(ctl->name));
	ctl->dev = dev;
	ctl->work = trak_cow_work_alloc(ctl);
	if (!ctl->work) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		return -ENOMEM;
	}
	task = kthread_run(trak_cowthread_fn, ctl->work, "%s", ctl->name);
	if (IS_ERR(task)) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to start COW thread %s: rc=%ld",
			 __func__, ctl->name, PTR_ERR(task));
		trak_cow_work_free(ctl->work);
		ctl->work = NULL;
		return PTR_ERR(task);
	}
	ctl->pid = task_pid_nr(task);
	WRITE_ONCE(ctl->task, task);
	trak_log(1, "%s(): Successfully started COW thread %s. pid=%d...",
		 __func__, ctl->name, ctl->pid);
	return 0;
}

static void trak_cowthread_stop(struct trak_cowthread *ctl)
{
	kthread_stop(ctl->task);
	trak_cow_work_free(ctl->work);
	WRITE_ONCE(ctl->task, NULL);
	ctl->work = NULL;
	ctl->pid = 0;
}

int trak_cowthread_shutdown(struct trak_cowthread *ctl)
{
	if (!ctl)
		return -EINVAL;
	if (!ctl->task)
		return 0;
	trak_log(1, "%s(): Stopping COW thread %s (pid=%d)...", __func__,
		 ctl->name, ctl->pid);
	trak_cowqueue_wait_empty(&ctl->dev->filter.cowqueue);
	trak_cowthread_stop(ctl);
	return 0;
}
