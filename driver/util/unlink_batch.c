// SPDX-License-Identifier: GPL-2.0
/* Files removed once the caller holds no lock. */
#include <linux/overflow.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "core/log.h"
#include "devnode.h"
#include "unlink_batch.h"

struct trak_unlink_entry {
	struct list_head link;
	char path[];
};

void trak_unlink_later(struct trak_unlink_batch *batch, const char *path)
{
	size_t len = strlen(path) + 1;
	struct trak_unlink_entry *e;

	e = kmalloc(struct_size(e, path, len), GFP_KERNEL);
	if (!e) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed: %s stays on disk.",
			 __func__, path);
		return;
	}
	memcpy(e->path, path, len);
	list_add_tail(&e->link, &batch->paths);
}

void trak_unlink_batch_run(struct trak_unlink_batch *batch)
{
	struct trak_unlink_entry *e, *next;

	list_for_each_entry_safe(e, next, &batch->paths, link) {
		trak_unlink(e->path);
		list_del(&e->link);
		kfree(e);
	}
}
