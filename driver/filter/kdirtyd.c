// SPDX-License-Identifier: GPL-2.0
/*
 * kdirtyd: marks bitmap files dirty on disk.  The request path cannot open
 * and write files, so it only queues a request here; the thread takes them
 * in order.  A save cancels the requests it has made pointless, and a node
 * going away waits until none of its requests is queued.
 */
#include <linux/delay.h>
#include <linux/jiffies.h>
#include <linux/kthread.h>
#include <linux/list.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/wait.h>

#include "bitmap.h"
#include "core/log.h"
#include "core/params.h"
#include "kdirtyd.h"

struct trak_dirty_req {
	struct list_head link;
	int active;		/* 0 once cancelled; guarded by the node's bmp_lock */
	struct trak_blkdev *dev;
	unsigned int kind;
};

static LIST_HEAD(trak_dirty_reqs);
static int trak_dirty_req_cnt;
static DEFINE_SPINLOCK(trak_dirty_lock);	/* the list and the count */
static DECLARE_WAIT_QUEUE_HEAD(trak_dirty_wait);
static struct task_struct *trak_kdirtyd;

static struct trak_dirty_req *trak_dirty_first(void)
{
	struct trak_dirty_req *req;

	spin_lock(&trak_dirty_lock);
	req = list_first_entry_or_null(&trak_dirty_reqs,
				       struct trak_dirty_req, link);
	spin_unlock(&trak_dirty_lock);
	return req;
}

static void trak_dirty_remove(struct trak_dirty_req *req)
{
	spin_lock(&trak_dirty_lock);
	list_del(&req->link);
	trak_dirty_req_cnt--;
	spin_unlock(&trak_dirty_lock);
	kfree(req);
}

static void trak_dirty_handle(struct trak_dirty_req *req)
{
	struct oxmutex *bmp_lock = &req->dev->filter.bmp_lock;

	if (!READ_ONCE(req->active))
		return;
	oxmutex_lock(bmp_lock);
	if (req->active)
		trak_block_write_dirty_flag(req->dev, req->kind, 1);
	oxmutex_unlock(bmp_lock);
}

static int trak_kdirtyd_fn(void *unused)
{
	struct trak_dirty_req *req;

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

		req = trak_dirty_first();
		if (req) {
			trak_dirty_handle(req);
			trak_dirty_remove(req);
		}
	}

	/* Requests still queued are dropped without writing their flags. */
	while ((req = trak_dirty_first()))
		trak_dirty_remove(req);
	trak_log(1, "%s(): Terminated.", "kdirtyd");
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
	trak_kdirtyd = task;
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
	trak_kdirtyd = NULL;
	trak_log(2, "%s(): kdirtyd has been stopped successfully", __func__);
	return 0;
}

/* Called from the request path: must not recurse into I/O. */
int trak_sched_write_dirty_flag(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_dirty_req *req;

	trak_log(2, "%s(): Appending dirty request for %s bitmap of trak(%d, %d)",
		 __func__, trak_bmp_kind_name(kind), trak_blk_major,
		 dev->minor);
	req = kzalloc(sizeof(*req), GFP_NOIO);
	if (!req) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failure",
			 __func__);
		return -ENOMEM;
	}
	req->active = 1;
	req->dev = dev;
	req->kind = kind;

	spin_lock(&trak_dirty_lock);
	list_add_tail(&req->link, &trak_dirty_reqs);
	trak_dirty_req_cnt++;
	spin_unlock(&trak_dirty_lock);
	wake_up(&trak_dirty_wait);
	return 0;
}

/* Called with the node's bmp_lock held. */
int trak_kill_dirty_requests(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_dirty_req *req;

	trak_log(2, "%s(): Killing all dirty requests for %s bitmap of trak(%d, %d)",
		 __func__, trak_bmp_kind_name(kind), trak_blk_major,
		 dev->minor);
	spin_lock(&trak_dirty_lock);
	list_for_each_entry(req, &trak_dirty_reqs, link) {
		if (req->dev == dev && req->kind == kind)
			WRITE_ONCE(req->active, 0);
	}
	spin_unlock(&trak_dirty_lock);
	return 0;
}

static bool trak_dirty_queued_for(struct trak_blkdev *dev)
{
	struct trak_dirty_req *req;
	bool queued = false;

	spin_lock(&trak_dirty_lock);
	list_for_each_entry(req, &trak_dirty_reqs, link) {
		if (req->dev == dev) {
			queued = true;
			break;
		}
	}
	spin_unlock(&trak_dirty_lock);
	return queued;
}

/* Waits until no request of @dev is queued, at most @seconds when >= 1. */
int trak_yield_to_dirty_requests(struct trak_blkdev *dev, int seconds)
{
	unsigned long deadline = jiffies + msecs_to_jiffies(seconds * 1000);

	while (trak_dirty_queued_for(dev)) {
		if (seconds >= 1 && time_after_eq(jiffies, deadline)) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): There are still some dirty requests pending for trak(%d, %d). Continuing anyway...",
				 __func__, trak_blk_major, dev->minor);
			return -ETIMEDOUT;
		}
		usleep_range(100, 1000);
	}
	return 0;
}
