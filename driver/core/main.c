// SPDX-License-Identifier: GPL-2.0
/*
 * Module start-up and shut-down: brings up the log, the /proc tree, the
 * control device and the block side in that order, and takes them down in
 * the reverse order.
 */
#include <generated/utsrelease.h>
#include <linux/module.h>
#include <linux/moduleparam.h>

#include "block/blockdev.h"
#include "control/chardev.h"
#include "control/proc.h"
#include "log.h"
#include "params.h"

int trak_chr_major = 100;
module_param(trak_chr_major, int, 0444);
MODULE_PARM_DESC(trak_chr_major, "Major of the control device (0: any)");

int trak_debug = 1;
module_param(trak_debug, int, 0444);
MODULE_PARM_DESC(trak_debug, "Log verbosity, 0 to 4");

int trak_max_blk_minor = 255;
module_param(trak_max_blk_minor, int, 0444);
MODULE_PARM_DESC(trak_max_blk_minor, "Highest minor of a filter or snap node");

int trak_blk_major = 100;
module_param(trak_blk_major, int, 0444);
MODULE_PARM_DESC(trak_blk_major, "Major of the nodes' block devices (0: any)");

static int __init trak_init(void)
{
	int rc;

	trak_log(1, "%s(): Initializing the driver.", __func__);
	trak_log(1, "%s(): Built: %s %s", __func__, TRAK_BUILD_DATE,
		 TRAK_BUILD_TIME);
	trak_log(1, "%s(): UTS_RELEASE: %s", __func__, UTS_RELEASE);

	rc = trak_debug_init();
	if (rc)
		goto out;
	rc = trak_create_proc();
	if (rc)
		goto err_debug;
	rc = trak_char_init();
	if (rc)
		goto err_proc;
	rc = trak_block_init();
	if (rc)
		goto err_char;
out:
	trak_log(1, "%s(): rc=%d", __func__, rc);
	return rc;

err_char:
	trak_char_destroy();
err_proc:
	trak_remove_proc();
err_debug:
	trak_log(1, "%s(): rc=%d", __func__, rc);
	trak_debug_destroy();
	return rc;
}

static void __exit trak_cleanup(void)
{
	trak_log(1, "%s(): The driver is being unloaded.", __func__);

	if (trak_block_destroy())
		return;
	if (trak_char_destroy())
		return;
	trak_remove_proc();
	trak_debug_destroy();
}

module_init(trak_init);
module_exit(trak_cleanup);

MODULE_DESCRIPTION("Block Filtering and Snap Driver");
MODULE_AUTHOR("The trak developers");
MODULE_LICENSE("GPL");
