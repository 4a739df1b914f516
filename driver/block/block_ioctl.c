// SPDX-License-Identifier: GPL-2.0
/*
 * Block-device commands on a node are answered by the partition under its
 * filter: a node has the size and geometry of what it stands on.
 */
#include <linux/blkdev.h>
#include <linux/blkpg.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <linux/uaccess.h>

#include "block_ioctl.h"
#include "core/log.h"
#include "core/params.h"
#include "registry.h"

static const char *trak_blk_cmd_name(unsigned int cmd)
{
	switch (cmd) {
	case BLKROSET:
		return "BLKROSET";
	case BLKROGET:
		return "BLKROGET";
	case BLKGETSIZE:
		return "BLKGETSIZE";
	case BLKFLSBUF:
		return "BLKFLSBUF";
	case BLKRASET:
		return "BLKRASET";
	case BLKRAGET:
		return "BLKRAGET";
	case BLKSSZGET:
		return "BLKSSZGET";
	case BLKPG:
		return "BLKPG";
	case BLKBSZGET:
		return "BLKBSZGET";
	case BLKBSZSET:
		return "BLKBSZSET";
	default:
		return "UNKNOWN";
	}
}

/* The filter whose partition answers for @dev, or NULL. */
static struct trak_blkdev *trak_answering_filter(struct trak_blkdev *dev)
{
	if (dev->dev_type == TRAK_DEV_FILTER)
		return dev;
	if (dev->dev_type == TRAK_DEV_SNAP && dev->snap.filter &&
	    dev->snap.filter->dev_type == TRAK_DEV_FILTER)
		return dev->snap.filter;
	return NULL;
}

int trak_block_ioctl(struct block_device *bdev, fmode_t mode,
		     unsigned int cmd, unsigned long arg)
{
	int minor = bdev->bd_disk->first_minor;
	const struct block_device_operations *ops;
	struct trak_blkdev *dev, *filter;
	struct block_device *hdd;
	int rc = 0;

	oxread_lock(&trak_blkdev_rwlock);
	dev = trak_blkdev_find(minor);
	if (!dev) {
		trak_log(TRAK_LOG_ERR, "%s(): Unknown device trak(%d, %d)",
			 __func__, trak_blk_major, minor);
		rc = -EINVAL;
		goto out;
	}
	trak_log(2, "%s(): cmd=0x%x (%s)", __func__, cmd,
		 trak_blk_cmd_name(cmd));

	if (_IOC_DIR(cmd) != _IOC_NONE &&
	    !access_ok((void __user *)arg, _IOC_SIZE(cmd))) {
		rc = -EFAULT;
		goto out;
	}

	filter = trak_answering_filter(dev);
	if (!filter) {
		trak_log(TRAK_LOG_ERR, "%s(): Internal error: fdev==NULL.",
			 __func__);
		rc = -EIO;
		goto out;
	}
	hdd = filter->filter.hdd_bdev;
	ops = hdd->bd_disk->fops;
	if (ops->ioctl)
		rc = ops->ioctl(hdd, mode, cmd, arg);
out:
	oxread_unlock(&trak_blkdev_rwlock);
	return rc;
}

int trak_block_getgeo(struct block_device *bdev, struct hd_geometry *geo)
{
	struct trak_blkdev *dev, *filter;
	struct block_device *hdd;
	int rc = -ENOTTY;

	oxread_lock(&trak_blkdev_rwlock);
	dev = trak_blkdev_find(bdev->bd_disk->first_minor);
	filter = dev ? trak_answering_filter(dev) : NULL;
	if (filter) {
		hdd = filter->filter.hdd_bdev;
		if (hdd->bd_disk->fops->getgeo)
			rc = hdd->bd_disk->fops->getgeo(hdd, geo);
	}
	oxread_unlock(&trak_blkdev_rwlock);
	return rc;
}
