// SPDX-License-Identifier: GPL-2.0
/*
 * The registry of nodes: one slot per minor, the choice of a free minor and
 * the generation of node uuids.
 */
#include <linux/nospec.h>
#include <linux/random.h>
#include <linux/slab.h>

#include "core/log.h"
#include "core/params.h"
#include "registry.h"

struct trak_blkdev **trak_blkdev_arr;
struct oxrwlock trak_blkdev_rwlock;

int trak_registry_create(void)
{
	oxrwlock_init(&trak_blkdev_rwlock);
	trak_blkdev_arr = kcalloc(trak_max_blk_minor + 1,
				  sizeof(*trak_blkdev_arr), GFP_KERNEL);
	if (!trak_blkdev_arr) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		return -ENOMEM;
	}
	return 0;
}

void trak_registry_destroy(void)
{
	kfree(trak_blkdev_arr);
	trak_blkdev_arr = NULL;
}

/*
 * The slot of a minor that user space chose, checked against the registry
 * even when the CPU runs ahead of the bounds check.
 */
static struct trak_blkdev **trak_blkdev_slot(int minor)
{
	return &trak_blkdev_arr[array_index_nospec(minor,
						   trak_max_blk_minor + 1)];
}

/* The record of @minor, or NULL; the caller holds trak_blkdev_rwlock. */
struct trak_blkdev *trak_blkdev_find(int minor)
{
	if (minor < 0 || minor > trak_max_blk_minor)
		return NULL;
	return *trak_blkdev_slot(minor);
}

/*
 * Resolves the minor a new node asked for: a negative request takes the
 * lowest free slot and is replaced by it.  Refusals are logged under
 * @func, the command's.  Called with trak_blkdev_rwlock held for writing.
 */
int trak_blkdev_choose_minor(int *minor, const char *func)
{
	int i;

	if (*minor > trak_max_blk_minor) {
		trak_log(TRAK_LOG_ERR, "%s(): Minor number %d is too big: max=%d",
			 func, *minor, trak_max_blk_minor);
		return -EINVAL;
	}

	if (*minor < 0) {
		for (i = 0; i <= trak_max_blk_minor; i++) {
			if (!trak_blkdev_arr[i]) {
				*minor = i;
				return 0;
			}
		}
		trak_log(TRAK_LOG_ERR,
			 "%s(): All %d of TRAK minor nodes have already been used up.",
			 func, trak_max_blk_minor + 1);
		return -ENOSPC;
	}

	if (*trak_blkdev_slot(*minor)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Device minor number %d is already taken",
			 func, *minor);
		return -EINVAL;
	}
	return 0;
}

/* Writes a new random uuid, "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}". */
void trak_uuid_generate(char *uuid)
{
	u8 b[16];

	get_random_bytes(b, sizeof(b));
	snprintf(uuid, TRAK_UUID_LEN, "{%pUb}", b);
}
