// SPDX-License-Identifier: GPL-2.0
/*
 * Block-device commands on a node. The block layer answers the size, limit
 * and read-only queries on the node itself, which has the size and limits
 * of the partition under its filter, and the geometry through getgeo below.
 * What reaches the driver is a command of some device's own driver: none
 * is passed on to the partition's driver, since raw SCSI, ATA or NVMe
 * commands, or a loop or device-mapper command, would write to or change
 * the partition around copy-on-write and change tracking.
 */
#include <linux/blkdev.h>
#include <linux/blkpg.h>
#include <linux/cdrom.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <linux/nvme_ioctl.h>
#include <linux/sed-opal.h>
#include <linux/uaccess.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>

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

/* Commands that hand a raw command to the device: refused on purpose. */
static bool trak_is_passthrough(unsigned int cmd)
{
	switch (cmd) {
	case SG_IO:
	case SCSI_IOCTL_SEND_COMMAND:
	case CDROM_SEND_PACKET:
	case HDIO_DRIVE_CMD:
	case HDIO_DRIVE_TASK:
	case HDIO_DRIVE_TASKFILE:
	case NVME_IOCTL_ADMIN_CMD:
	case NVME_IOCTL_SUBMIT_IO:
	case NVME_IOCTL_IO_CMD:
	case NVME_IOCTL_RESET:
	case NVME_IOCTL_SUBSYS_RESET:
	case NVME_IOCTL_RESCAN:
	case NVME_IOCTL_ADMIN64_CMD:
	case NVME_IOCTL_IO64_CMD:
	case NVME_IOCTL_IO64_CMD_VEC:
		return true;
	default:
		return is_sed_ioctl(cmd);
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
	struct trak_blkdev *dev;
	int rc;

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

	if (!trak_answering_filter(dev)) {
		trak_log(TRAK_LOG_ERR, "%s(): Internal error: fdev==NULL.",
			 __func__);
		rc = -EIO;
		goto out;
	}
	rc = trak_is_passthrough(cmd) ? -EPERM : -ENOTTY;
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
