// SPDX-License-Identifier: GPL-2.0
/*
 * What a block device is stacked on, as the block layer shows it in sysfs:
 * the devices in its disk's "slaves" directory (device-mapper, md, bcache
 * link the devices they claim there), and for a loop device what its
 * backing file leads to: the device itself when the file is a block
 * device, else the device of the file system holding the file.
 */
#include <linux/blkdev.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/kdev_t.h>
#include <linux/namei.h>
#include <linux/slab.h>
#include <linux/stat.h>
#include <linux/string.h>

#include "stack.h"

#define TRAK_SYSFS_BLOCK	"/sys/dev/block"
/* "maj:min" with a newline, as the "dev" attribute shows it. */
#define TRAK_DEV_ATTR_LEN	24

struct trak_lower_list {
	dev_t *devs;
	int cnt;
	int max;
};

static void trak_lower_add(struct trak_lower_list *list, dev_t devt)
{
	if (devt && list->cnt < list->max)
		list->devs[list->cnt++] = devt;
}

/* Reads a sysfs attribute, without its newline, as a NUL-terminated string. */
static int trak_read_attr(const char *path, char *buf, size_t size)
{
	struct file *file = filp_open(path, O_RDONLY, 0);
	loff_t pos = 0;
	ssize_t len;

	if (IS_ERR(file))
		return PTR_ERR(file);
	len = kernel_read(file, buf, size - 1, &pos);
	fput(file);
	if (len < 0)
		return len;
	if (len && buf[len - 1] == '\n')
		len--;
	buf[len] = '\0';
	return 0;
}

static dev_t trak_read_devt(const char *path)
{
	char text[TRAK_DEV_ATTR_LEN];
	unsigned int major, minor;

	if (trak_read_attr(path, text, sizeof(text)) ||
	    sscanf(text, "%u:%u", &major, &minor) != 2)
		return 0;
	return MKDEV(major, minor);
}

/* The names in a "slaves" directory, gathered before any is opened. */
struct trak_slave_names {
	struct dir_context ctx;
	char (*names)[DISK_NAME_LEN];
	int cnt;
	int max;
};

static bool trak_add_slave_name(struct dir_context *ctx, const char *name,
				int namelen, loff_t offset, u64 ino,
				unsigned int type)
{
	struct trak_slave_names *slaves =
		container_of(ctx, struct trak_slave_names, ctx);

	if (name[0] == '.' || namelen >= DISK_NAME_LEN)
		return true;
	if (slaves->cnt == slaves->max)
		return false;
	memcpy(slaves->names[slaves->cnt], name, namelen);
	slaves->names[slaves->cnt++][namelen] = '\0';
	return true;
}

static void trak_add_slaves(const char *disk_dir, char *path,
			    struct trak_lower_list *list)
{
	struct trak_slave_names slaves = {
		.ctx.actor = trak_add_slave_name,
		.max = list->max - list->cnt,
	};
	struct file *dir;
	int i;

	if (!slaves.max)
		return;
	slaves.names = kmalloc_array(slaves.max, DISK_NAME_LEN, GFP_KERNEL);
	if (!slaves.names)
		return;
	snprintf(path, PATH_MAX, "%s/slaves", disk_dir);
	dir = filp_open(path, O_RDONLY | O_DIRECTORY, 0);
	if (!IS_ERR(dir)) {
		iterate_dir(dir, &slaves.ctx);
		fput(dir);
	}
	for (i = 0; i < slaves.cnt; i++) {
		snprintf(path, PATH_MAX, "%s/slaves/%s/dev", disk_dir,
			 slaves.names[i]);
		trak_lower_add(list, trak_read_devt(path));
	}
	kfree(slaves.names);
}

/* The device a loop device's backing file leads to, or 0. */
static dev_t trak_loop_backing_devt(const char *disk_dir, char *path)
{
	struct inode *inode;
	struct path backing;
	dev_t devt = 0;

	snprintf(path, PATH_MAX, "%s/loop/backing_file", disk_dir);
	/* The open has taken its own copy of the name: @path takes the file's. */
	if (trak_read_attr(path, path, PATH_MAX) ||
	    kern_path(path, LOOKUP_FOLLOW, &backing))
		return 0;
	inode = d_inode(backing.dentry);
	if (S_ISBLK(inode->i_mode))
		devt = inode->i_rdev;
	else if (inode->i_sb->s_bdev)
		devt = inode->i_sb->s_bdev->bd_dev;
	path_put(&backing);
	return devt;
}

int trak_lower_devices(dev_t devt, dev_t *lower, int max)
{
	struct trak_lower_list list = { .devs = lower, .max = max };
	struct path partition;
	char *disk_dir, *path;

	path = kmalloc(PATH_MAX, GFP_KERNEL);
	disk_dir = kmalloc(PATH_MAX, GFP_KERNEL);
	if (!path || !disk_dir)
		goto out;
	/* A partition is stacked on what its disk is stacked on. */
	snprintf(disk_dir, PATH_MAX, TRAK_SYSFS_BLOCK "/%u:%u/partition",
		 MAJOR(devt), MINOR(devt));
	if (!kern_path(disk_dir, 0, &partition)) {
		path_put(&partition);
		snprintf(disk_dir, PATH_MAX, TRAK_SYSFS_BLOCK "/%u:%u/..",
			 MAJOR(devt), MINOR(devt));
	} else {
		snprintf(disk_dir, PATH_MAX, TRAK_SYSFS_BLOCK "/%u:%u",
			 MAJOR(devt), MINOR(devt));
	}
	trak_add_slaves(disk_dir, path, &list);
	trak_lower_add(&list, trak_loop_backing_devt(disk_dir, path));
out:
	kfree(disk_dir);
	kfree(path);
	return list.cnt;
}
