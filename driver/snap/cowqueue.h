/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The COW queue of a filter node: requests that may not reach the
 * partition yet.  Writes that would overwrite chunks a snap has not
 * preserved, writes that overlap a request already waiting, and snap reads
 * that must be served in order with them wait here, in the order the COW
 * thread serves them.  An interval tree of their sector ranges lets the
 * request path and the thread ask quickly whether anything waiting
 * overlaps a request.
 *
 * The queue is bounded: a writer that finds TRAK_COWQUEUE_MAX_HELD requests
 * waiting sleeps until the COW thread has made room, unless it must never
 * wait for the thread (see trak_cowqueue_append()).
 *
 * The queue's lock is held only inside these operations, never across the
 * thread's I/O.  Only the COW thread removes requests.
 */
#ifndef TRAK_SNAP_COWQUEUE_H
#define TRAK_SNAP_COWQUEUE_H

#include <linux/list.h>
#include <linux/rbtree.h>
#include <linux/spinlock.h>
#include <linux/types.h>
#include <linux/wait.h>

struct bio;

/*
 * Two groups' worth of one-chunk writes (a group holds up to 1024 chunks):
 * one group being preserved while the next is collected.  Well below the
 * requests the memory pool keeps in reserve, so that a writer held to the
 * bound always finds one there.
 */
#define TRAK_COWQUEUE_MAX_HELD	2048
/*
 * The longest a writer waits for room.  A COW thread that makes progress
 * frees room much sooner (a pass preserves at most 4 MiB); the limit is
 * for one that cannot start a pass: it takes the registry lock, whose
 * writers (adding a node, a snap) may be waiting for the io_lock that the
 * waiting writer holds for reading.  Past it the request is held anyway.
 */
#define TRAK_COWQUEUE_THROTTLE_MS	10000

struct trak_cowqueue {
	spinlock_t lock;		/* all but the wait queues */
	struct list_head requests;	/* in the order they are served */
	struct rb_root_cached tree;	/* the same requests by sector range */
	u32 cnt;			/* published as cowqueue_len */
	u32 throttled;			/* writers waiting for room */
	wait_queue_head_t wait;		/* the COW thread; woken by appends */
	wait_queue_head_t progress;	/* woken when a request leaves */
	wait_queue_head_t room;		/* throttled writers, one at a time */
};

/* One held request. */
struct trak_cow_request {
	struct list_head link;
	struct rb_node rb;
	sector_t subtree_last;		/* of the interval tree */
	/* Orders requests as the list does: smaller comes first. */
	u64 order;
	s32 snap_minor;			/* the snap it is preserved for; -1 none */
	struct bio *bio;		/* not owned: the submitter's */
	sector_t first;
	sector_t last;
	bool write;
};

int trak_cowqueue_init(struct trak_cowqueue *q);
int trak_cowqueue_destroy(struct trak_cowqueue *q);

/*
 * Holds @bio.  A write sleeps first while the queue is full, except from
 * the COW thread, from a task in a no-I/O allocation scope (kdirtyd: writes
 * wait for it in turn) and with a @gfp that may not block.
 */
int trak_cowqueue_append(struct trak_cowqueue *q, s32 snap_minor,
			 struct bio *bio, gfp_t gfp);
/* Whether a waiting request of a matching direction overlaps @bio. */
int trak_cowqueue_find_overlap_req(struct trak_cowqueue *q, int match_reads,
				   int match_writes, struct bio *bio);
/* Unlinks and frees @req; its bio is the caller's to pass on or end. */
void trak_cowqueue_remove(struct trak_cowqueue *q,
			  struct trak_cow_request *req);
/* Ends every waiting bio with an I/O error and empties the queue. */
int trak_cowqueue_purge(struct trak_cowqueue *q);

/* The request after @req (the first when @req is NULL), or NULL. */
struct trak_cow_request *trak_cowqueue_next(struct trak_cowqueue *q,
					    struct trak_cow_request *req);
/* Whether a request before @req overlaps it. */
bool trak_cowqueue_overlaps_earlier(struct trak_cowqueue *q,
				    struct trak_cow_request *req);
/* Re-stamps every request for snap @from as one for @to. */
void trak_cowqueue_restamp(struct trak_cowqueue *q, s32 from, s32 to);
/* Sleeps until the queue is empty. */
void trak_cowqueue_wait_empty(struct trak_cowqueue *q);

static inline u32 trak_cowqueue_len(const struct trak_cowqueue *q)
{
	return READ_ONCE(q->cnt);
}

#endif
