// SPDX-License-Identifier: GPL-2.0
/*
 * The block side of the driver: the block major shared by every node and
 * the registry of nodes.
 */
#include <linux/blkdev.h>

#include "blockdev.h"
#include "core/log.h"
#include "core/params.h"
#include "filter/kdirtyd.h"
#include "lifecycle.h"
#include "node.h"
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
	if (!rc)
		rc = trak_start_kdirtyd();
	if (rc) {
		/*
		 * The failed load never reaches trak_block_destroy(), and a
		 * major left registered would name a string of the unloaded
		 * module: give it back here.
		 */
		trak_registry_destroy();
		unregister_blkdev(trak_blk_major, "trak");
		trak_blk_registered = false;
	}
	return rc;
}

/* Stops and destroys every node; their bitmap files stay on disk. */
static int trak_block_destroy_nodes(void)
{
	int minor, rc = 0;

	trak_log(1, "%s(): Stopping all minor nodes", "trak_block_destroy");
	oxread_lock(&trak_blkdev_rwlock);
	for (minor = 0; minor <= trak_max_blk_minor; minor++) {
		if (trak_blkdev_arr[minor])
			trak_block_stop_device(trak_blkdev_arr[minor]);
	}
	oxread_unlock(&trak_blkdev_rwlock);

	trak_log(1, "%s(): Destroying all minor nodes", "trak_block_destroy");
	oxwrite_lock(&trak_blkdev_rwlock);
	for (minor = 0; minor <= trak_max_blk_minor && !rc; minor++) {
		if (trak_blkdev_arr[minor])
			rc = trak_block_destroy_device(trak_blkdev_arr[minor],
						       NULL);
	}
	if (!rc)
		trak_registry_destroy();
	oxwrite_unlock(&trak_blkdev_rwlock);
	return rc;
}

int trak_block_destroy(void)
{
	int rc;

	if (trak_blkdev_arr) {
		rc = trak_block_destroy_nodes();
		if (rc)
			return rc;
	}

	if (trak_blk_registered) {
		trak_log(1, "%s(): Unregistering block device driver",
			 __func__);
		unregister_blkdev(trak_blk_major, "trak");
		trak_blk_registered = false;
	}
	trak_stop_kdirtyd();
	return 0;
}
