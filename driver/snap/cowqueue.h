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

struct trak_cowqueue {
	spinlock_t lock;		/* requests, tree and cnt */
	struct list_head requests;	/* in the order they are served */
	struct rb_root_cached tree;	/* the same requests by sector range */
	u32 cnt;			/* published as cowqueue_len */
	wait_queue_head_t wait;		/* the COW thread; woken by appends */
	wait_queue_head_t progress;	/* woken when a request leaves */
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
