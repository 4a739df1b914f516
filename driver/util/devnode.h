/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_UTIL_DEVNODE_H
#define TRAK_UTIL_DEVNODE_H

#include <linux/types.h>

struct dentry;

/* Where the driver makes the device files of its nodes. */
#define TRAK_DEV_DIR	"/dev/trak"

int trak_mknod(const char *path, int block, int major, int minor);
int trak_unlink(const char *path);
struct dentry *trak_get_file_dentry(const char *path, int follow);
dev_t trak_get_file_devt(const char *path);
int trak_get_bdev_devt(const char *path, const char *func, dev_t *devt);

#endif
