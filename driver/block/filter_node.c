// SPDX-License-Identifier: GPL-2.0
/*
 * Adding a filter node: check the partition, make the record with its
 * change bitmaps loaded from an earlier life of the node, then the disk
 * "trakN", its device file and its /proc directory.
 */
#include <linux/blkdev.h>
#include <linux/dcache.h>
#include <linux/fs.h>
#include <linux/log2.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "control/proc.h"
#include "core/log.h"
#include "core/params.h"
#include "disk.h"
#include "filter/bitmap.h"
#include "filter/guard.h"
#include "filter_node.h"
#include "registry.h"
#include "util/bdev.h"
#include "util/devnode.h"

#define TRAK_MIN_EXTENT_SIZE	4096
#define TRAK_HDD_MODE		(FMODE_READ | FMODE_WRITE)

static int trak_find_duplicate(dev_t devt, const char *func)
{
	struct trak_blkdev *dev;
	int minor, rc = 0;

	oxread_lock(&trak_blkdev_rwlock);
	for (minor = 0; minor <= trak_max_blk_minor; minor++) {
		dev = trak_blkdev_arr[minor];
		if (dev && dev->dev_type == TRAK_DEV_FILTER &&
		    dev->filter.hdd_dev == devt) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Found a duplicate trak%d node going to the same HDD device %s",
				 func, minor, dev->filter.hdd_name);
			rc = -EINVAL;
			break;
		}
	}
	oxread_unlock(&trak_blkdev_rwlock);
	return rc;
}

/* Nothing may use the partition but the filter: it would miss changes. */
static int trak_check_hdd_unused(struct block_device *hdd, const char *path,
				 const char *func)
{
	if (trak_is_mounted(hdd)) {
		trak_log(TRAK_LOG_ERR, "%s(): Can't attach to mounted HDD device %s",
			 func, path);
		return -EBUSY;
	}
	if (atomic_read(&hdd->bd_openers) >= 2) {
		trak_log(TRAK_LOG_ERR, "%s(): Can't attach to an open HDD device %s",
			 func, path);
		return -EBUSY;
	}
	return 0;
}

/*
 * An empty device (a loop device with no file) has no extent to track; on
 * a zoned one, zone resets and appends would change data that neither the
 * change bitmaps nor copy-on-write see.
 */
static int trak_check_hdd_trackable(struct block_device *hdd, const char *path,
				    const char *func)
{
	if (!bdev_nr_bytes(hdd)) {
		trak_log(TRAK_LOG_ERR, "%s(): HDD device %s is empty.", func,
			 path);
		return -EINVAL;
	}
	if (bdev_is_zoned(hdd)) {
		trak_log(TRAK_LOG_ERR, "%s(): Can't attach to zoned HDD device %s",
			 func, path);
		return -EINVAL;
	}
	return 0;
}

static int trak_check_extent_size(u32 extent_size, u32 block_size,
				  const char *func)
{
	if (!is_power_of_2(extent_size)) {
		trak_log(TRAK_LOG_ERR, "%s(): Extent size must be a power of 2",
			 func);
		return -EINVAL;
	}
	if (extent_size % block_size) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Extent size must be a multiple of block size (%dB)",
			 func, block_size);
		return -EINVAL;
	}
	if (extent_size < TRAK_MIN_EXTENT_SIZE) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Extent size can't be smaller than page size (%dB)",
			 func, TRAK_MIN_EXTENT_SIZE);
		return -EINVAL;
	}
	return 0;
}

/* Bitmap directory without trailing slashes; a lone "/" stays. */
static void trak_set_bmp_files(struct trak_filter *f, const char *dir,
			       int minor)
{
	size_t len;

	strscpy(f->bmp_dir, dir, sizeof(f->bmp_dir));
	len = strlen(f->bmp_dir);
	while (len > 1 && f->bmp_dir[len - 1] == '/')
		f->bmp_dir[--len] = '\0';
	snprintf(f->incr_bmp_fname, sizeof(f->incr_bmp_fname), "%s/trak%d.incr",
		 f->bmp_dir, minor);
	snprintf(f->diff_bmp_fname, sizeof(f->diff_bmp_fname), "%s/trak%d.diff",
		 f->bmp_dir, minor);
}

static int trak_alloc_bitmaps(struct trak_filter *f, const char *func)
{
	u32 alloc = trak_bmp_alloc_size(f->incr_bmp_size);

	f->incr_bmp = vzalloc(alloc);
	f->diff_bmp = vzalloc(alloc);
	if (f->incr_bmp && f->diff_bmp)
		return 0;
	trak_log(TRAK_LOG_ERR,
		 "%s(): Failed to allocate %d+%d bytes of memory for bitmaps",
		 func, f->incr_bmp_size, f->diff_bmp_size);
	return -ENOMEM;
}

static void trak_fill_filter(struct trak_blkdev *dev,
			     struct trak_add_filter_args *rec,
			     struct block_device *hdd, dev_t devt)
{
	struct trak_filter *f = &dev->filter;

	dev->dev_type = TRAK_DEV_FILTER;
	oxmutex_init(&dev->lock);
	dev->minor = rec->minor;
	strscpy(dev->uuid, rec->uuid, sizeof(dev->uuid));
	strscpy(dev->name, rec->name, sizeof(dev->name));

	f->hdd_dev = devt;
	f->hdd_bdev = hdd;
	f->bmp_minor = rec->minor;
	strscpy(f->hdd_name, rec->hdd_name, sizeof(f->hdd_name));
	f->extent_size = rec->extent_size;
	f->extent_shift = ilog2(rec->extent_size);
	f->dev_size = bdev_nr_bytes(hdd);
	f->extent_cnt = ((f->dev_size - 1) >> f->extent_shift) + 1;
	INIT_LIST_HEAD(&f->snaps);
	oxmutex_init(&f->bmp_lock);
	f->incr_bmp_size = ((f->extent_cnt - 1) >> 3) + 1;
	f->diff_bmp_size = f->incr_bmp_size;
	oxrwlock_init(&f->io_lock);
	trak_guard_init(dev);
	trak_set_bmp_files(f, rec->bmp_dir, rec->minor);
}

static void trak_free_filter(struct trak_blkdev *dev)
{
	vfree(dev->filter.incr_bmp);
	vfree(dev->filter.diff_bmp);
	kfree(dev);
}

int trak_ioctl_add_filter_node(struct trak_add_filter_args *rec)
{
	struct block_device *probe, *hdd = NULL;
	struct trak_blkdev *dev = NULL;
	char disk_name[DISK_NAME_LEN];
	dev_t devt;
	int rc;

	rec->hdd_name[sizeof(rec->hdd_name) - 1] = '\0';
	rec->bmp_dir[sizeof(rec->bmp_dir) - 1] = '\0';
	rec->uuid[sizeof(rec->uuid) - 1] = '\0';
	rec->name[sizeof(rec->name) - 1] = '\0';
	trak_log(1, "%s(): Adding new node: HDD=%s, trak_minor=%d, extent_size=%d, bmap_dir=%s",
		 __func__, rec->hdd_name, rec->minor, rec->extent_size,
		 rec->bmp_dir);

	if (!rec->hdd_name[0]) {
		trak_log(TRAK_LOG_ERR, "%s(): Empty HDD name passed as input.",
			 __func__);
		return -EINVAL;
	}
	rc = trak_get_bdev_devt(rec->hdd_name, __func__, &devt);
	if (rc)
		return rc;
	if (!rec->uuid[0])
		trak_uuid_generate(rec->uuid);
	rc = trak_find_duplicate(devt, __func__);
	if (rc)
		return rc;

	probe = trak_open_bdev(devt, TRAK_HDD_MODE, NULL);
	if (!probe) {
		trak_log(TRAK_LOG_ERR, "%s(): Unable to open HDD device %s (%d, %d)",
			 __func__, rec->hdd_name, MAJOR(devt), MINOR(devt));
		return -EINVAL;
	}
	rc = trak_check_hdd_unused(probe, rec->hdd_name, __func__);
	if (rc)
		goto out_probe;
	sync_blockdev(probe);
	invalidate_bdev(probe);
	rc = trak_check_extent_size(rec->extent_size,
				    bdev_logical_block_size(probe), __func__);
	if (rc)
		goto out_probe;
	rc = trak_check_hdd_trackable(probe, rec->hdd_name, __func__);
	if (rc)
		goto out_probe;

	dev = kzalloc(sizeof(*dev), GFP_KERNEL);
	if (!dev) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failure",
			 __func__);
		rc = -ENOMEM;
		goto out_probe;
	}
	/* From now on the filter holds the partition, and nobody else may claim it. */
	hdd = trak_open_bdev(devt, TRAK_HDD_MODE | FMODE_EXCL, dev);
	if (!hdd) {
		trak_log(TRAK_LOG_ERR, "%s(): Can't attach to an open HDD device %s",
			 __func__, rec->hdd_name);
		kfree(dev);
		rc = -EBUSY;
		goto out_probe;
	}
	trak_close_bdev(probe, TRAK_HDD_MODE);
	probe = NULL;

	oxwrite_lock(&trak_blkdev_rwlock);
	rc = trak_blkdev_choose_minor(&rec->minor, __func__);
	if (rc)
		goto out_unlock;
	snprintf(disk_name, sizeof(disk_name), "trak%d", rec->minor);
	trak_log(1, "%s(): Attaching %s to %s", __func__, disk_name,
		 rec->hdd_name);
	if (!rec->name[0])
		strscpy(rec->name, disk_name, sizeof(rec->name));
	trak_blkdev_arr[rec->minor] = dev;

	trak_fill_filter(dev, rec, hdd, devt);
	rc = trak_alloc_bitmaps(&dev->filter, __func__);
	if (rc)
		goto out_slot;
	/* A missing or stale file leaves an all-ones bitmap: not an error. */
	trak_block_load_bmp(dev, TRAK_BMP_INCR);
	trak_block_load_bmp(dev, TRAK_BMP_DIFF);

	rc = trak_cowqueue_init(&dev->filter.cowqueue);
	if (rc)
		goto out_slot;
	trak_cowthread_init(&dev->filter.cowthread);
	if (trak_aio_init(&dev->filter.aio)) {
		rc = -EIO;
		goto out_queue;
	}

	trak_log(3, "%s(): dev_size=%lld, extent_size=%d, block_size=%d, bmp_size=%d",
		 __func__, dev->filter.dev_size, dev->filter.extent_size,
		 bdev_logical_block_size(hdd), dev->filter.incr_bmp_size);
	rc = trak_disk_create(dev, hdd, dev->filter.dev_size);
	if (rc)
		goto out_aio;
	trak_proc_add_device(dev);
	trak_disk_make_dev_file(dev);
	oxwrite_unlock(&trak_blkdev_rwlock);
	return 0;

out_aio:
	trak_aio_destroy(&dev->filter.aio);
out_queue:
	trak_cowqueue_destroy(&dev->filter.cowqueue);
out_slot:
	trak_blkdev_arr[rec->minor] = NULL;
out_unlock:
	oxwrite_unlock(&trak_blkdev_rwlock);
	trak_close_bdev(hdd, TRAK_HDD_MODE | FMODE_EXCL);
	trak_free_filter(dev);
out_probe:
	trak_close_bdev(probe, TRAK_HDD_MODE);
	return rc;
}
