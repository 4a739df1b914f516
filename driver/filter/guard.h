/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_FILTER_GUARD_H
#define TRAK_FILTER_GUARD_H

#include <linux/bio.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/types.h>
#include <linux/wait.h>
#include <linux/workqueue.h>

struct trak_blkdev;

/*
 * What a change bitmap's file on disk would tell the next load after a
 * crash, and what is being done to it.  A write must not reach the
 * partition while a crash could leave a clean file without its extents.
 */
enum trak_bmp_file {
	TRAK_BMP_FILE_DIRTY,	/* marked dirty on disk, or not trusted at all */
	TRAK_BMP_FILE_SETTLING,	/* marked dirty; being cut to its short form */
	TRAK_BMP_FILE_CLEAN,	/* maybe a clean save: a new bit needs a mark first */
	TRAK_BMP_FILE_MARKING,	/* a dirty mark is being written: writes wait */
	TRAK_BMP_FILE_CLEANING,	/* a save writes the clean flag: new bits wait */
};

/*
 * kdirtyd's request to mark one bitmap's file dirty; one per kind and
 * node, made with the node.  Once marked, the file is cut to its short
 * form by @shorten, from a worker.
 */
struct trak_dirty_req {
	struct list_head link;		/* in kdirtyd's queue while queued */
	struct trak_blkdev *dev;
	unsigned int kind;
	bool queued;
	bool shorten;			/* a save does not rewrite the file next */
	struct work_struct shorten_work;
};

/*
 * Per filter: the state of both bitmap files and the writes held until
 * their dirty marks are on disk.  @lock guards every field; writes take
 * it only while @guarded is set, which changes from false to true only
 * with the filter's io_lock held for writing.
 */
struct trak_guard {
	spinlock_t lock;
	bool guarded;			/* some file may still read as clean */
	u8 file[2];			/* enum trak_bmp_file, by kind */
	bool remark[2];			/* a new bit arrived while CLEANING */
	struct bio_list held;		/* in arrival order */
	struct trak_dirty_req req[2];
	wait_queue_head_t wait;		/* woken at every change of @file */
};

void trak_guard_init(struct trak_blkdev *dev);
bool trak_guard_write(struct trak_blkdev *dev, struct bio *bio);

void trak_guard_marked(struct trak_blkdev *dev, unsigned int kind,
		       bool settling, struct bio_list *release);
void trak_guard_settled(struct trak_blkdev *dev, unsigned int kind);

bool trak_guard_request_mark(struct trak_blkdev *dev, unsigned int kind);
void trak_guard_wait_settled(struct trak_blkdev *dev, unsigned int kind);
bool trak_guard_begin_clean(struct trak_blkdev *dev, unsigned int kind);
void trak_guard_end_clean(struct trak_blkdev *dev, unsigned int kind);
void trak_guard_loaded(struct trak_blkdev *dev, unsigned int kind,
		       bool accepted);
bool trak_guard_idle(struct trak_blkdev *dev);

#endif
