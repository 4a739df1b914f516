/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_BLOCK_REGISTRY_H
#define TRAK_BLOCK_REGISTRY_H

#include <linux/atomic.h>
#include <linux/list.h>
#include <linux/types.h>

#include "core/oxlock.h"
#include "filter/guard.h"
#include "fsmap/blkbmp.h"
#include "snap/aio.h"
#include "snap/cow_store.h"
#include "snap/cowqueue.h"
#include "snap/cowthread.h"
#include "trak_ioctl.h"

struct block_device;
struct gendisk;

/* A filter node: change tracking over one partition (the "HDD"). */
struct trak_filter {
	u32 hdd_dev;
	char hdd_name[TRAK_PATH_LEN];
	struct block_device *hdd_bdev;
	int bmp_minor;
	u32 extent_size;
	u32 extent_shift;
	u32 extent_cnt;
	u64 dev_size;
	char bmp_dir[TRAK_PATH_LEN];
	struct list_head snaps;		/* oldest snap first */
	struct oxmutex bmp_lock;
	u32 incr_bmp_size;
	u32 diff_bmp_size;
	unsigned long *incr_bmp;	/* whole longs, see trak_bmp_alloc_size() */
	unsigned long *diff_bmp;
	char incr_bmp_fname[TRAK_PATH_LEN];
	char diff_bmp_fname[TRAK_PATH_LEN];
	int incr_bmp_dirty;
	int diff_bmp_dirty;
	struct trak_guard guard;	/* writes held until their files are marked */
	struct trak_cowthread cowthread;	/* kcowd, while snaps need it */
	struct trak_cowqueue cowqueue;	/* requests held for copy-on-write */
	/*
	 * Read-held while a request is routed; write-held to change what
	 * routing looks at: the snaps list, a snap's started flag.
	 */
	struct oxrwlock io_lock;
	atomic_t io_cnt;		/* set by a request since a snap start cleared it */
	struct trak_aio aio;		/* clones in flight to the partition */
};

/* A snap node: a read-only point-in-time image of a filter node. */
struct trak_snap {
	struct list_head snap_link;
	int filter_minor;
	int snap_minor;
	u32 chunk_size;
	int chunk_shift;
	u64 cow_chunks;
	struct trak_blkdev *filter;
	char cow_data_fname[TRAK_PATH_LEN];
	char cow_bmp_fname[TRAK_PATH_LEN];
	struct trak_cow_store store;	/* open from start to stop */
	struct trak_blkbmp datablock_bmp;	/* which chunks hold file data */
	u64 cow_data_size;
	u32 cow_bmp_size;
	int snap_valid;			/* 0 once copying failed, until a restart */
	int stop_pending;
	int del_pending;
	/* Not started, and its origin changed since it was added or stopped. */
	int origin_written;
	bool resumed;			/* started by a resume, not a start */
};

/* One node, filter or snap, at index minor of trak_blkdev_arr. */
struct trak_blkdev {
	u32 dev_type;			/* TRAK_DEV_FILTER or TRAK_DEV_SNAP */
	struct gendisk *disk;
	struct block_device *bdev;	/* as last opened by a user */
	int started;
	int use_cnt;
	struct oxmutex lock;
	int minor;
	char uuid[TRAK_UUID_LEN];
	char name[TRAK_NAME_LEN];
	char dev_name[TRAK_NAME_LEN];	/* "/dev/trak/<name>" once made */
	union {
		struct trak_filter filter;
		struct trak_snap snap;
	};
};

/*
 * The registry: trak_max_blk_minor + 1 slots, indexed by minor, guarded by
 * trak_blkdev_rwlock.  Lock order: trak_blkdev_rwlock, then a node's lock,
 * then a filter's io_lock or bmp_lock.
 */
extern struct trak_blkdev **trak_blkdev_arr;
extern struct oxrwlock trak_blkdev_rwlock;

int trak_registry_create(void);
void trak_registry_destroy(void);
struct trak_blkdev *trak_blkdev_find(int minor);
int trak_blkdev_choose_minor(int *minor, const char *func);
void trak_uuid_generate(char *uuid);

#endif
