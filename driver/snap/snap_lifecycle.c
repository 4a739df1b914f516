// SPDX-License-Identifier: GPL-2.0
/*
 * Starting, stopping and resuming snaps.  A start fixes the snap's point in
 * time: the file system on the filter is frozen, and the snap goes live at
 * a moment when no request of the filter is being routed.
 *
 * Every change of a snap's state happens under its filter's lock and then
 * its own, in that order (the order a filter stop takes them in), and the
 * flags the request path reads change under the filter's io_lock.
 */
#include <linux/blk-mq.h>
#include <linux/blkdev.h>
#include <linux/jiffies.h>
#include <linux/sched.h>

#include "block/disk.h"
#include "block/lifecycle.h"
#include "core/log.h"
#include "core/params.h"
#include "snap_lifecycle.h"
#include "snaps.h"
#include "util/bdev.h"

/*
 * How long a start may take, from its request to the point in time: the
 * file system's freeze, a moment without requests on the filter and the
 * drain of the writes routed before it.  The freeze cannot be cut short;
 * the waits after it get what is left, and a start that needs longer
 * gives up with -EAGAIN, leaving the filter as it was.
 */
#define TRAK_START_MS		60000

static void trak_snap_lock(struct trak_blkdev *snap)
{
	oxmutex_lock(&snap->snap.filter->lock);
	oxmutex_lock(&snap->lock);
}

static void trak_snap_unlock(struct trak_blkdev *snap)
{
	oxmutex_unlock(&snap->lock);
	oxmutex_unlock(&snap->snap.filter->lock);
}

/* The filter started, and its COW thread running, for a snap to go live. */
static int trak_snap_prepare_filter(struct trak_blkdev *filter)
{
	int rc;

	if (!filter->started) {
		rc = trak_block_start_device(filter);
		if (rc)
			return rc;
	}
	if (trak_cowthread_running(&filter->filter.cowthread))
		return 0;
	return trak_cowthread_start(&filter->filter.cowthread, "kcowd", filter);
}

/* Jiffies left until @deadline; 0 once it has passed. */
static unsigned long trak_time_left(unsigned long deadline)
{
	long left = (long)(deadline - jiffies);

	return left > 0 ? left : 0;
}

/*
 * The next wait of a start: a second at most, for a task asleep
 * uninterruptibly for long is reported as hung.
 */
static unsigned long trak_start_slice(unsigned long deadline)
{
	return min_t(unsigned long, trak_time_left(deadline), HZ);
}

/*
 * Calls @wait(@arg, timeout) a slice at a time until it answers true, or
 * false once @deadline has passed.
 */
static bool trak_start_wait(bool (*wait)(void *arg, unsigned long timeout),
			    void *arg, unsigned long deadline)
{
	for (;;) {
		if (wait(arg, trak_start_slice(deadline)))
			return true;
		if (time_after_eq(jiffies, deadline))
			return false;
	}
}

/*
 * Takes the filter's io_lock for writing at a moment when no request came
 * in since the last look; returns holding it, or -EAGAIN at @deadline.
 * There is no event for the absence of requests: between looks the start
 * sleeps a tick.
 */
static int trak_snap_wait_for_quiet(struct trak_blkdev *filter,
				    unsigned long deadline)
{
	struct trak_filter *f = &filter->filter;

	for (;;) {
		atomic_set(&f->io_cnt, 0);
		if (!oxwrite_lock_timeout(&f->io_lock, trak_start_slice(deadline))) {
			if (!atomic_read(&f->io_cnt))
				return 0;
			oxwrite_unlock(&f->io_lock);
		}
		if (time_after_eq(jiffies, deadline))
			return -EAGAIN;
		trak_log(4, "%s(): Waiting for FS on trak(%d, %d) (%s) to stabilize...",
			 "trak_block_start_device", trak_blk_major,
			 filter->minor, f->hdd_name);
		schedule_timeout_uninterruptible(1);
	}
}

static bool trak_snap_aio_idle(void *aio, unsigned long timeout)
{
	return trak_aio_wait_idle(aio, timeout);
}

static bool trak_snap_queue_frozen(void *q, unsigned long timeout)
{
	return blk_mq_freeze_queue_wait_timeout(q, timeout) > 0;
}

/*
 * Called at the quiet moment, with the filter's io_lock held for writing:
 * the writes routed before it end before the snap goes live, so that no
 * copy the snap makes of a chunk can meet one of them half done.  The
 * partition's own queue is drained too, for the writes passed on before
 * the filter had snaps and so was not tracking them.  -EAGAIN when they
 * are still in flight at @deadline.
 */
static int trak_snap_drain_filter(struct trak_filter *f, unsigned long deadline)
{
	struct request_queue *q = bdev_get_queue(f->hdd_bdev);
	bool drained;

	if (!trak_start_wait(trak_snap_aio_idle, &f->aio, deadline))
		return -EAGAIN;
	if (!queue_is_mq(q))
		return 0;
	blk_freeze_queue_start(q);
	drained = trak_start_wait(trak_snap_queue_frozen, q, deadline);
	blk_mq_unfreeze_queue(q);
	return drained ? 0 : -EAGAIN;
}

/* The point in time: no request in flight, snap live. */
static int trak_snap_go_live(struct trak_blkdev *snap, unsigned long deadline)
{
	struct trak_blkdev *filter = snap->snap.filter;
	struct trak_filter *f = &filter->filter;
	int rc;

	rc = trak_snap_wait_for_quiet(filter, deadline);
	if (!rc) {
		rc = trak_snap_drain_filter(f, deadline);
		if (rc)
			oxwrite_unlock(&f->io_lock);
	}
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Timed out waiting for FS on trak(%d, %d) (%s) to stabilize.",
			 "trak_block_start_device", trak_blk_major,
			 filter->minor, f->hdd_name);
		return rc;
	}
	/* Requests held for an earlier snap of this minor are not ours. */
	trak_cowqueue_restamp(&f->cowqueue, snap->minor, -1);
	WRITE_ONCE(snap->snap.snap_valid, 1);
	WRITE_ONCE(snap->started, 1);
	oxwrite_unlock(&f->io_lock);
	trak_log(3, "%s(): trak(%d, %d) has been started successfully",
		 "trak_block_start_device", trak_blk_major, snap->minor);
	return 0;
}

static void trak_snap_store_geometry(const struct trak_snap *s,
				     struct trak_cow_store_geometry *g)
{
	g->data_fname = s->cow_data_fname;
	g->data_size = s->cow_data_size;
	g->bmp_fname = s->cow_bmp_fname;
	g->bmp_size = s->cow_bmp_size;
	g->chunks = s->cow_chunks;
}

/* The first started snap after @snap, or NULL. */
static struct trak_blkdev *trak_snap_newer_started(struct trak_blkdev *snap)
{
	struct list_head *snaps = &snap->snap.filter->filter.snaps;
	struct trak_blkdev *s = snap;

	list_for_each_entry_continue(s, snaps, snap.snap_link) {
		if (s->started)
			return s;
	}
	return NULL;
}

static int trak_snap_start_locked(struct trak_blkdev *snap,
				  unsigned long deadline)
{
	struct trak_snap *s = &snap->snap;
	struct trak_cow_store_geometry g;
	struct trak_blkdev *newer;
	int rc;

	if (s->stop_pending) {
		trak_log(TRAK_LOG_ERR, "%s(): Cannot restart a DEFUNCT snap device.",
			 "trak_block_start_device");
		return -EINVAL;
	}
	/*
	 * Writes are preserved for the newest started snap, and an older
	 * snap reads what the newer ones preserved: that holds only while
	 * the snaps of a filter go live in the order they were added.
	 */
	newer = trak_snap_newer_started(snap);
	if (newer) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Cannot start trak(%d, %d) while trak(%d, %d), added after it, is started.",
			 "trak_block_start_device", trak_blk_major, snap->minor,
			 trak_blk_major, newer->minor);
		return -EINVAL;
	}
	rc = trak_snap_prepare_filter(s->filter);
	if (rc)
		return rc;
	trak_snap_store_geometry(s, &g);
	rc = trak_cow_store_create(&s->store, &g);
	if (rc)
		return rc;
	s->resumed = false;
	trak_blkbmp_init(&s->datablock_bmp);
	rc = trak_snap_go_live(snap, deadline);
	if (rc) {
		trak_cow_store_close(&s->store);
		trak_blkbmp_destroy(&s->datablock_bmp);
	}
	return rc;
}

/*
 * The file system on the filter is frozen around the whole start, outside
 * the node locks: a mount holds the file system's s_umount while it opens
 * the filter, and that open takes the filter's lock, so freezing (which
 * waits for s_umount) under that lock could deadlock with a mount.
 */
int trak_snap_start(struct trak_blkdev *snap)
{
	unsigned long deadline = jiffies + msecs_to_jiffies(TRAK_START_MS);
	struct block_device *fs_bdev = snap->snap.filter->disk->part0;
	int rc;

	rc = freeze_bdev(fs_bdev);
	if (rc)
		return rc;
	trak_snap_lock(snap);
	if (snap->started) {
		trak_log(TRAK_LOG_ERR, "%s(): trak(%d, %d) has already been started",
			 "trak_block_start_device", trak_blk_major, snap->minor);
		rc = -EALREADY;
	} else {
		rc = trak_snap_start_locked(snap, deadline);
	}
	trak_snap_unlock(snap);
	thaw_bdev(fs_bdev);
	if (!rc) {
		trak_snap_map_data_blocks(snap);
		trak_disk_announce_change(snap);
	}
	return rc;
}

/*
 * Reads which chunks hold file data, from the snap itself: its point in
 * time, not the file system as it changes meanwhile.  Until the map is in
 * place every chunk counts as data; an unreadable map stays so.
 */
void trak_snap_map_data_blocks(struct trak_blkdev *snap)
{
	struct trak_filter *f = &snap->snap.filter->filter;
	struct trak_blkbmp map, old;
	struct block_device *bdev;

	trak_blkbmp_init(&map);
	bdev = trak_open_bdev(MKDEV(trak_blk_major, snap->minor), FMODE_READ,
			      NULL);
	if (bdev)
		trak_blkbmp_read(&map, bdev, snap->snap.chunk_size);
	trak_close_bdev(bdev, FMODE_READ);

	oxwrite_lock(&f->io_lock);
	old = snap->snap.datablock_bmp;
	if (map.valid && snap->started && !old.valid) {
		snap->snap.datablock_bmp = map;
		map = old;
	}
	oxwrite_unlock(&f->io_lock);
	trak_blkbmp_destroy(&map);
}

/* Whether a snap before @snap (an older one) is started. */
static bool trak_snap_older_started(struct trak_blkdev *snap)
{
	struct list_head *snaps = &snap->snap.filter->filter.snaps;
	struct trak_blkdev *s = snap;

	list_for_each_entry_continue_reverse(s, snaps, snap.snap_link) {
		if (s->started)
			return true;
	}
	return false;
}

/*
 * The snap leaves routing first; its COW store goes once the COW thread
 * is not working on it.
 */
static void trak_snap_go_offline(struct trak_blkdev *snap)
{
	struct trak_filter *f = &snap->snap.filter->filter;

	oxwrite_lock(&f->io_lock);
	WRITE_ONCE(snap->snap.stop_pending, 0);
	WRITE_ONCE(snap->started, 0);
	/* Its COW files match the origin until the next write. */
	WRITE_ONCE(snap->snap.origin_written, 0);
	oxwrite_unlock(&f->io_lock);

	mutex_lock(&f->cowthread.store_lock);
	trak_cow_store_close(&snap->snap.store);
	mutex_unlock(&f->cowthread.store_lock);
	trak_blkbmp_destroy(&snap->snap.datablock_bmp);
}

/*
 * Older snaps read chunks from the stores of newer ones: while one of
 * them is started, this snap's stop waits (DEFUNCT), and the stop of the
 * snap before it completes it.
 */
static int trak_snap_stop_locked(struct trak_blkdev *snap, bool *postponed)
{
	if (snap->use_cnt) {
		trak_log(TRAK_LOG_ERR, "%s(): trak(%d, %d) is still being used.",
			 "trak_block_stop_device", trak_blk_major, snap->minor);
		return -EBUSY;
	}
	*postponed = trak_snap_older_started(snap);
	if (*postponed)
		WRITE_ONCE(snap->snap.stop_pending, 1);
	else
		trak_snap_go_offline(snap);
	return 0;
}

int trak_snap_stop(struct trak_blkdev *snap)
{
	struct trak_blkdev *next;
	bool postponed = false;
	int rc = 0;

	trak_snap_lock(snap);
	if (!snap->started) {
		trak_snap_unlock(snap);
		return 0;
	}
	rc = trak_snap_stop_locked(snap, &postponed);
	oxmutex_unlock(&snap->lock);
	if (!rc && !postponed) {
		next = trak_snap_newer_started(snap);
		if (next && next->snap.stop_pending)
			rc = trak_block_stop_device(next);
	}
	if (postponed)
		trak_log(1, "%s(): Postponing stop of trak(%d, %d), since there are other snaps depending on this one.",
			 "trak_block_stop_device", trak_blk_major, snap->minor);
	else if (!rc)
		trak_log(3, "%s(): trak(%d, %d) has been stopped successfully",
			 "trak_block_stop_device", trak_blk_major, snap->minor);
	oxmutex_unlock(&snap->snap.filter->lock);
	return rc;
}

/* Called with the filter's lock held, before the filter stops. */
int trak_filter_stop_snaps(struct trak_blkdev *filter)
{
	struct trak_blkdev *snap;
	int rc;

	list_for_each_entry(snap, &filter->filter.snaps, snap.snap_link) {
		if (!snap->started)
			continue;
		rc = trak_block_stop_device(snap);
		if (rc)
			return rc;
	}
	return 0;
}

/*
 * A resumed snap joins the snaps of its filter in their order: newest
 * first.  No older snap may be started, since an older one would read
 * through it (or, resumed invalid, it would take the writes an older one
 * needs preserved).  A snap resumed as valid reads the chunks preserved
 * after its successors' moments from their stores: each of them must be
 * started, valid, and resumed, not started afresh, since a fresh start
 * lost what was written before it.
 */
static int trak_snap_resume_order(struct trak_blkdev *snap, bool valid)
{
	struct list_head *snaps = &snap->snap.filter->filter.snaps;
	struct trak_blkdev *s = snap;

	list_for_each_entry_continue_reverse(s, snaps, snap.snap_link) {
		if (!s->started)
			continue;
		trak_log(TRAK_LOG_ERR,
			 "%s(): Cannot resume trak(%d, %d) while trak(%d, %d), added before it, is started.",
			 "trak_ioctl_resume_snap", trak_blk_major, snap->minor,
			 trak_blk_major, s->minor);
		return -EINVAL;
	}
	if (!valid)
		return 0;
	s = snap;
	list_for_each_entry_continue(s, snaps, snap.snap_link) {
		if (s->started && s->snap.resumed && trak_snap_usable(s))
			continue;
		trak_log(TRAK_LOG_ERR,
			 "%s(): Cannot resume trak(%d, %d) as valid: trak(%d, %d), added after it, is not a valid resumed snap.",
			 "trak_ioctl_resume_snap", trak_blk_major, snap->minor,
			 trak_blk_major, s->minor);
		return -EINVAL;
	}
	return 0;
}

/*
 * Goes live unless a write reached the origin since the snap's files were
 * last in use; io_lock orders the test against the writes.
 */
static int trak_snap_resume_live(struct trak_blkdev *snap,
				 const struct trak_resume_snap_args *rec)
{
	struct trak_snap *s = &snap->snap;
	struct trak_filter *f = &s->filter->filter;
	int rc = 0;

	oxwrite_lock(&f->io_lock);
	if (rec->snap_valid && s->origin_written) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Cannot resume trak(%d, %d) as valid: trak(%d, %d) has been written since its COW files were last in use.",
			 "trak_ioctl_resume_snap", trak_blk_major, snap->minor,
			 trak_blk_major, s->filter->minor);
		rc = -ESTALE;
	} else {
		WRITE_ONCE(s->snap_valid, !!rec->snap_valid);
		WRITE_ONCE(s->stop_pending, !!rec->stop_pending);
		s->del_pending = !!rec->del_pending;
		s->resumed = true;
		WRITE_ONCE(snap->started, 1);
	}
	oxwrite_unlock(&f->io_lock);
	return rc;
}

static int trak_snap_resume_locked(struct trak_blkdev *snap,
				   const struct trak_resume_snap_args *rec)
{
	struct trak_snap *s = &snap->snap;
	struct trak_cow_store_geometry g;
	int rc;

	rc = trak_snap_resume_order(snap, rec->snap_valid);
	if (rc)
		return rc;
	rc = trak_snap_prepare_filter(s->filter);
	if (rc)
		return rc;
	trak_snap_store_geometry(s, &g);
	rc = trak_cow_store_open(&s->store, &g, rec->snap_valid);
	if (rc)
		return rc;
	trak_blkbmp_init(&s->datablock_bmp);
	rc = trak_snap_resume_live(snap, rec);
	if (rc) {
		trak_cow_store_close(&s->store);
		trak_blkbmp_destroy(&s->datablock_bmp);
	}
	return rc;
}

/* Brings back a snap whose COW files an earlier life of the driver left. */
int trak_snap_resume(struct trak_blkdev *snap,
		     const struct trak_resume_snap_args *rec)
{
	int rc;

	trak_snap_lock(snap);
	rc = trak_snap_resume_locked(snap, rec);
	trak_snap_unlock(snap);
	if (!rc)
		trak_disk_announce_change(snap);
	return rc;
}
