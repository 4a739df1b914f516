/* SPDX-License-Identifier: GPL-2.0 */
/*
 * kcowd, the COW thread of a filter node: it works through the filter's
 * COW queue.  Before a held write reaches the partition it preserves the
 * old contents of the chunks the write touches, in groups of up to 4 MiB,
 * in the COW store of the snap the write was stamped with; it serves snap
 * reads from the COW stores and the partition; and when preserving fails
 * it invalidates snaps rather than hold or fail the write.
 */
#ifndef TRAK_SNAP_COWTHREAD_H
#define TRAK_SNAP_COWTHREAD_H

#include <linux/mutex.h>
#include <linux/types.h>

struct task_struct;
struct trak_blkdev;
struct trak_cow_work;

#define TRAK_COWTHREAD_NAME_LEN	64
/* A group: 1024 pages of 4096 bytes read in parallel. */
#define TRAK_COW_GROUP_PAGES	1024
#define TRAK_COW_GROUP_BYTES	(TRAK_COW_GROUP_PAGES * 4096)

struct trak_cowthread {
	char name[TRAK_COWTHREAD_NAME_LEN];
	struct task_struct *task;	/* NULL when not running */
	pid_t pid;
	struct trak_blkdev *dev;	/* the filter */
	struct trak_cow_work *work;	/* the thread's working storage */
	/*
	 * Held by the thread while it works on the snaps' COW stores; a
	 * snap's store is torn down only under it.
	 */
	struct mutex store_lock;
};

/* Once, when the filter is made. */
void trak_cowthread_init(struct trak_cowthread *ctl);
int trak_cowthread_start(struct trak_cowthread *ctl, const char *name,
			 struct trak_blkdev *dev);
/* Lets the queue drain, then stops the thread. */
int trak_cowthread_shutdown(struct trak_cowthread *ctl);

static inline bool trak_cowthread_running(const struct trak_cowthread *ctl)
{
	return READ_ONCE(ctl->task) != NULL;
}

/* Whether the caller is a COW thread (of any filter). */
bool trak_current_is_cowthread(void);

#endif
