// SPDX-License-Identifier: GPL-2.0
/*
 * The block side of the driver: the block major shared by every node and
 * the registry of nodes.
 */
#include <linux/blkdev.h>

#include "blockdev.h"
#include "core/log.h"
#include "core/params.h"
#include "registry.h"

static bool trak_blk_registered;

int trak_block_init(void)
{
	int rc;

	trak_log(1, "%s(): Initializing block device", __func__);
	rc = register_blkdev(trak_blk_major, "trak");
	if (rc < 0) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to register block device: rc=%d.",
			 __func__, rc);
		return rc;
	}
	if (trak_blk_major == 0)
		trak_blk_major = rc;
	trak_log(1, "%s(): trak_blk_major=%d", __func__, trak_blk_major);
	trak_blk_registered = true;

	rc = trak_registry_create();
	if (rc) {
		/*
		 * The failed load never reaches trak_block_destroy(), and a
		 * major left registered would name a string of the unloaded
		 * module: give it back here.
		 */
		unregister_blkdev(trak_blk_major, "trak");
		trak_blk_registered = false;
	}
	return rc;
}

int trak_block_destroy(void)
{
	trak_registry_destroy();

	if (trak_blk_registered) {
		trak_log(1, "%s(): Unregistering block device driver",
			 __func__);
		unregister_blkdev(trak_blk_major, "trak");
		trak_blk_registered = false;
	}
	return 0;
}
