// SPDX-License-Identifier: GPL-2.0
/*
 * kdirtyd: marks bitmap files dirty on disk.  The request path cannot open
 * and write files, so it only queues the node's request here (one per
 * bitmap, made with the node) and holds its write; the thread writes the
 * mark and lets the held writes go.  A worker then cuts the file to its
 * short dirty form.  Saves and commands that need a file marked ask here
 * too, and wait.
 *
 * A bitmap directory may sit on a file system on another trak node, even
 * one that keeps its own bitmaps on this node.  So the thread must never
 * wait for a write held by a node: its own writes are never held, its
 * marks need no journal commit (see trak_block_write_dirty_flag()) nor any
 * other lock of the file system that a held write could keep, and its
 * memory allocations and dirty-page throttling never wait for writeback.
 * Whatever may wait, cutting the file included, happens elsewhere.
 */
#include <linux/jiffies.h>
#include <linux/kthread.h>
#include <linux/list.h>
#include <linux/sched.h>
#include <linux/sched/mm.h>
#include <linux/spinlock.h>
#include <linux/wait.h>
#include <linux/workqueue.h>

#include "bitmap.h"
#include "core/log.h"
#include "core/params.h"
#include "guard.h"
#include "kdirtyd.h"
#include "router.h"

/* How often a node going away checks again past its deadline. */
#define TRAK_DIRTY_RECHECK_MS	5000

static LIST_HEAD(trak_dirty_reqs);
static int trak_dirty_req_cnt;
static DEFINE_SPINLOCK(trak_dirty_lock);	/* the list and the count */
static DECLARE_WAIT_QUEUE_HEAD(trak_dirty_wait);
static struct task_struct *trak_kdirtyd;

bool trak_in_kdirtyd(void)
{
	return current == READ_ONCE(trak_kdirtyd);
}

/* Takes the oldest request off the queue. */
static struct trak_dirty_req *trak_dirty_pop(void)
{
	struct trak_dirty_req *req;

	spin_lock(&trak_dirty_lock);
	req = list_first_entry_or_null(&trak_dirty_reqs,
				       struct trak_dirty_req, link);
	if (req) {
		list_del_init(&req->link);
		req->queued = false;
		trak_dirty_req_cnt--;
	}
	spin_unlock(&trak_dirty_lock);
	return req;
}

/* The marked file is stale beyond its flag: cut it to the short form. */
static void trak_dirty_shorten_fn(struct work_struct *work)
{
	struct trak_dirty_req *req = container_of(work, struct trak_dirty_req,
						  shorten_work);

	trak_block_truncate_dirty_bmp(req->dev, req->kind);
	trak_guard_settled(req->dev, req->kind);
}

void trak_dirty_req_init(struct trak_dirty_req *req, struct trak_blkdev *dev,
			 unsigned int kind)
{
	INIT_LIST_HEAD(&req->link);
	req->dev = dev;
	req->kind = kind;
	INIT_WORK(&req->shorten_work, trak_dirty_shorten_fn);
}

/*
 * Marks the request's file dirty on disk and lets the writes that waited
 * for it go.  kdirtyd has the file to itself: the node's guard says
 * MARKING, and nobody else writes a file in that state.
 */
static void trak_write_dirty_mark(struct trak_dirty_req *req)
{
	struct bio_list release = BIO_EMPTY_LIST;
	bool shorten = !trak_block_write_dirty_flag(req->dev, req->kind, 1) &&
		       req->shorten;

	trak_guard_marked(req->dev, req->kind, shorten, &release);
	trak_filter_release(req->dev, &release);
	if (shorten)
		queue_work(system_unbound_wq, &req->shorten_work);
}

/*
 * Makes the file of @kind read as dirty on disk, before a save rewrites it
 * or a command adds bits that it lacks.  Called with the node's bmp_lock
 * held; kdirtyd never takes it.
 */
void trak_make_bmp_file_dirty(struct trak_blkdev *dev, unsigned int kind)
{
	while (!trak_guard_request_mark(dev, kind))
		trak_guard_wait_settled(dev, kind);
}

/* Lets the writes of a request that will not be written go on. */
static void trak_dirty_drop(struct trak_dirty_req *req)
{
	struct bio_list release = BIO_EMPTY_LIST;

	trak_guard_marked(req->dev, req->kind, false, &release);
	trak_filter_release(req->dev, &release);
}

static int trak_kdirtyd_fn(void *unused)
{
	/*
	 * Writes wait for this thread: it must not wait for them in turn,
	 * through memory reclaim or through the throttling of dirty pages.
	 */
	unsigned int noio = memalloc_noio_save();
	struct trak_dirty_req *req;

	current->flags |= PF_LOCAL_THROTTLE;
	trak_log(1, "%s(): Started.", "kdirtyd");
	while (!kthread_should_stop()) {
		trak_log(2, "%s(): Waiting for dirty requests to come...",
			 "kdirtyd");
		wait_event_interruptible(trak_dirty_wait,
					 READ_ONCE(trak_dirty_req_cnt) ||
					 kthread_should_stop());
		if (kthread_should_stop())
			break;
		trak_log(2, "%s(): Got %d requests in queue", "kdirtyd",
			 READ_ONCE(trak_dirty_req_cnt));

		req = trak_dirty_pop();
		if (req)
			trak_write_dirty_mark(req);
	}

	/* Requests still queued are dropped without writing their flags. */
	while ((req = trak_dirty_pop()))
		trak_dirty_drop(req);
	trak_log(1, "%s(): Terminated.", "kdirtyd");
	memalloc_noio_restore(noio);
	return 0;
}

int trak_start_kdirtyd(void)
{
	struct task_struct *task;

	if (trak_kdirtyd) {
		trak_log(TRAK_LOG_ERR, "%s(): kdirtyd has already been started.",
			 __func__);
		return -EALREADY;
	}
	trak_log(1, "%s(): Starting kdirtyd", __func__);
	task = kthread_run(trak_kdirtyd_fn, NULL, "kdirtyd");
	if (IS_ERR(task)) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to start kdirtyd: rc=%ld",
			 __func__, PTR_ERR(task));
		return PTR_ERR(task);
	}
	WRITE_ONCE(trak_kdirtyd, task);
	trak_log(2, "%s(): kdirtyd has been started successfully: pid=%d",
		 __func__, task_pid_nr(task));
	return 0;
}

int trak_stop_kdirtyd(void)
{
	trak_log(1, "%s(): Stopping kdirtyd", __func__);
	if (!trak_kdirtyd) {
		trak_log(TRAK_LOG_ERR, "%s(): kdirtyd is not running.",
			 __func__);
		return -ESRCH;
	}
	kthread_stop(trak_kdirtyd);
	WRITE_ONCE(trak_kdirtyd, NULL);
	trak_log(2, "%s(): kdirtyd has been stopped successfully", __func__);
	return 0;
}

/*
 * Queues the node's request for the file of @kind; @shorten when nobody
 * rewrites the file after the mark.  Called with the node's guard lock
 * held, also from the request path: it neither sleeps nor allocates.
 */
int trak_sched_write_dirty_flag(struct trak_blkdev *dev, unsigned int kind,
				bool shorten)
{
	struct trak_dirty_req *req = &dev->filter.guard.req[kind];

	trak_log(2, "%s(): Appending dirty request for %s bitmap of trak(%d, %d)",
		 __func__, trak_bmp_kind_name(kind), trak_blk_major,
		 dev->minor);
	spin_lock(&trak_dirty_lock);
	req->shorten = shorten;
	if (!req->queued) {
		list_add_tail(&req->link, &trak_dirty_reqs);
		req->queued = true;
		trak_dirty_req_cnt++;
	}
	spin_unlock(&trak_dirty_lock);
	wake_up(&trak_dirty_wait);
	return 0;
}

/*
 * Waits until no dirty-flag work on @dev's files is under way and none of
 * its writes waits for it.  Past the deadline of @seconds (when >= 1) it
 * says so and goes on waiting: the record holds kdirtyd's requests, their
 * workers and the held writes, and must outlive them.
 */
int trak_yield_to_dirty_requests(struct trak_blkdev *dev, int seconds)
{
	struct trak_guard *g = &dev->filter.guard;
	unsigned int kind;
	int rc = 0;

	if (seconds >= 1 &&
	    !wait_event_timeout(g->wait, trak_guard_idle(dev),
				msecs_to_jiffies(seconds * 1000))) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): There are still some dirty requests pending for trak(%d, %d). Continuing anyway...",
			 __func__, trak_blk_major, dev->minor);
		rc = -ETIMEDOUT;
	}
	/* In slices, so that a long wait is not taken for a hung task. */
	while (!wait_event_timeout(g->wait, trak_guard_idle(dev),
				   msecs_to_jiffies(TRAK_DIRTY_RECHECK_MS)))
		continue;
	/* The worker has said so; let it return, too. */
	for (kind = 0; kind < ARRAY_SIZE(g->req); kind++)
		flush_work(&g->req[kind].shorten_work);
	return rc;
}
