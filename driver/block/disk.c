// SPDX-License-Identifier: GPL-2.0
/* The generic disk of a node: "trakN", stacked on the partition below. */
#include <linux/blkdev.h>
#include <linux/module.h>

#include "block_ioctl.h"
#include "core/log.h"
#include "core/params.h"
#include "disk.h"
#include "filter/router.h"
#include "lifecycle.h"
#include "registry.h"
#include "util/devnode.h"

static const struct block_device_operations trak_block_fops = {
	.owner		= THIS_MODULE,
	.submit_bio	= trak_make_request,
	.open		= trak_block_open,
	.release	= trak_block_release,
	.ioctl		= trak_block_ioctl,
	.compat_ioctl	= blkdev_compat_ptr_ioctl,
	.getgeo		= trak_block_getgeo,
};

/*
 * Requests built for the node must be acceptable to the partition below
 * unchanged, so the node takes over its limits; flushes and FUA are passed
 * down and dropped there if the partition does not need them.
 */
int trak_disk_create(struct trak_blkdev *dev, struct block_device *hdd,
		     u64 size)
{
	struct gendisk *disk;
	int rc;

	disk = blk_alloc_disk(NUMA_NO_NODE);
	if (!disk) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to allocate new generic disk.", __func__);
		return -ENOMEM;
	}
	disk->major = trak_blk_major;
	disk->first_minor = dev->minor;
	disk->minors = 1;
	disk->flags |= GENHD_FL_NO_PART;
	disk->fops = &trak_block_fops;
	disk->private_data = dev;
	snprintf(disk->disk_name, DISK_NAME_LEN, "trak%d", dev->minor);

	blk_set_stacking_limits(&disk->queue->limits);
	disk_stack_limits(disk, hdd, 0);
	blk_queue_write_cache(disk->queue, true, true);
	set_capacity(disk, size >> SECTOR_SHIFT);

	rc = add_disk(disk);
	if (rc) {
		put_disk(disk);
		return rc;
	}
	dev->disk = disk;
	return 0;
}

void trak_disk_destroy(struct trak_blkdev *dev)
{
	if (!dev->disk)
		return;
	del_gendisk(dev->disk);
	put_disk(dev->disk);
	dev->disk = NULL;
}

/* Makes "/dev/trak/<name>"; the node works without it, so errors are only logged. */
void trak_disk_make_dev_file(struct trak_blkdev *dev)
{
	char path[TRAK_NAME_LEN];

	snprintf(path, sizeof(path), TRAK_DEV_DIR "/%s", dev->name);
	trak_unlink(path);
	if (!trak_mknod(path, 1, trak_blk_major, dev->minor))
		strscpy(dev->dev_name, path, sizeof(dev->dev_name));
}

/*
 * A node's disk appears before the node is started, when it cannot be
 * opened yet, so udev could not look at it then (it opens every disk it
 * processes); a change event once it can be opened lets udev make its
 * links, as device-mapper's resume does.
 */
void trak_disk_announce_change(struct trak_blkdev *dev)
{
	kobject_uevent(&disk_to_dev(dev->disk)->kobj, KOBJ_CHANGE);
}

/* A change event that tells udev the snap is invalid now: saved states follow. */
void trak_disk_announce_invalid(struct trak_blkdev *dev)
{
	char invalid[] = "TRAK_SNAP_INVALID=1";
	char *envp[2] = { invalid, NULL };

	kobject_uevent_env(&disk_to_dev(dev->disk)->kobj, KOBJ_CHANGE, envp);
}
