/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Files to remove once a lock is released.  Removing a large file may wait
 * for writes to the file system that holds it, and those may pass through
 * another trak node whose COW thread needs the lock meanwhile.
 */
#ifndef TRAK_UTIL_UNLINK_BATCH_H
#define TRAK_UTIL_UNLINK_BATCH_H

#include <linux/list.h>

struct trak_unlink_batch {
	struct list_head paths;
};

#define TRAK_UNLINK_BATCH(name) \
	struct trak_unlink_batch name = { .paths = LIST_HEAD_INIT(name.paths) }

/* Remembers @path; a path that cannot be remembered stays on disk (logged). */
void trak_unlink_later(struct trak_unlink_batch *batch, const char *path);
/* Removes every path remembered, and forgets them. */
void trak_unlink_batch_run(struct trak_unlink_batch *batch);

#endif
