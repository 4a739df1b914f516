/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What happens to a request when snaps exist.
 *
 * A write through a filter with snaps (its change bits already set) goes to
 * the partition as a tracked clone (aio.c), unless it must wait: when a
 * request already waiting in the COW queue overlaps it, or when the newest
 * started snap has not preserved one of its chunks that holds data
 * (snaps.c).  Then the write itself joins the COW queue (cowqueue.c),
 * stamped with that snap, and kcowd (cowthread.c) preserves the old chunks
 * in the snap's COW store (cow_store.c) before it lets the write go on.
 *
 * A read of a snap goes to the partition, unless a COW store holds one of
 * its chunks or a write to its sectors is waiting: then kcowd serves it, in
 * order with those writes.
 */
#ifndef TRAK_SNAP_ROUTE_H
#define TRAK_SNAP_ROUTE_H

struct bio;
struct trak_blkdev;

/*
 * Routes a request of @filter, which has snaps, with its io_lock held for
 * reading.  Returns 0 when the bio was passed on or queued, else a
 * negative errno with which the caller ends it.
 */
int trak_route_filter_with_snaps(struct trak_blkdev *filter, struct bio *bio);
/* Routes a request to @snap; the same results. */
int trak_route_snap(struct trak_blkdev *snap, struct bio *bio);

#endif
