/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_BLOCK_REGISTRY_H
#define TRAK_BLOCK_REGISTRY_H

#include <linux/list.h>
#include <linux/types.h>

#include "core/oxlock.h"
#include "filter/guard.h"
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
	int cowqueue_len;		/* requests held for copy-on-write */
	struct oxrwlock io_lock;	/* read-held while a request is routed */
	atomic_t io_cnt;		/* requests routed under io_lock */
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
	u64 cow_data_size;
	u32 cow_bmp_size;
	int snap_valid;
	int stop_pending;
	int del_pending;
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
int trak_blkdev_choose_minor(int *minor);
void trak_uuid_generate(char *uuid);

#endif
