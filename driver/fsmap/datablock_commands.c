// SPDX-License-Identifier: GPL-2.0
/*
 * The data-block commands of the control device.  Kernel only: the shared
 * logic they run lives beside them.
 */
#include <linux/blkdev.h>

#include "blkbmp_test.h"
#include "core/log.h"
#include "datablock_commands.h"
#include "util/bdev.h"
#include "util/devnode.h"

/* Runs the data-block self-test on an unmounted partition. */
int trak_ioctl_test_datablock(struct trak_test_datablock_args *rec)
{
	struct block_device *bdev;
	dev_t devt;
	int rc;

	rec->hdd_name[sizeof(rec->hdd_name) - 1] = '\0';
	trak_log(1, "%s(): Testing datablocks on %s", __func__, rec->hdd_name);
	if (!rec->hdd_name[0]) {
		trak_log(TRAK_LOG_ERR, "%s(): Empty HDD name passed as input.",
			 __func__);
		return -EINVAL;
	}
	rc = trak_get_bdev_devt(rec->hdd_name, __func__, &devt);
	if (rc)
		return rc;

	bdev = trak_open_bdev(devt, FMODE_READ, NULL);
	if (!bdev) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to open %s", __func__,
			 rec->hdd_name);
		return -EIO;
	}
	if (trak_is_mounted(bdev)) {
		trak_log(TRAK_LOG_ERR, "%s(): Can't test mounted HDD device %s",
			 __func__, rec->hdd_name);
		rc = -EBUSY;
	} else {
		rc = trak_blkbmp_test(bdev);
	}
	trak_close_bdev(bdev, FMODE_READ);
	return rc;
}
