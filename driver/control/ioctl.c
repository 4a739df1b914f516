// SPDX-License-Identifier: GPL-2.0
/*
 * The command dispatcher of the control device: checks the command, copies
 * its record in, resolves the node the record names, runs the handler and
 * copies the record back for commands that return data.
 */
#include <linux/capability.h>
#include <linux/fs.h>
#include <linux/ioctl.h>
#include <linux/nospec.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include "block/filter_node.h"
#include "block/lifecycle.h"
#include "block/node.h"
#include "block/query.h"
#include "block/registry.h"
#include "filter/bmp_commands.h"
#include "fsmap/datablock_commands.h"
#include "core/log.h"
#include "core/params.h"
#include "ioctl.h"
#include "snap/snap_node.h"

struct trak_command {
	unsigned int code;
	const char *name;
	bool on_node;	/* the record starts with a minor the dispatcher resolves */
};

#define TRAK_COMMAND(cmd, node) { cmd, #cmd, node }

/* Indexed by command number. */
static const struct trak_command trak_commands[] = {
	[1]  = TRAK_COMMAND(TRAK_ADD_FILTER_NODE, false),
	[2]  = TRAK_COMMAND(TRAK_ADD_SNAP_NODE, false),
	[3]  = TRAK_COMMAND(TRAK_DEL_NODE, false),
	[4]  = TRAK_COMMAND(TRAK_START_NODE, false),
	[5]  = TRAK_COMMAND(TRAK_STOP_NODE, false),
	[6]  = TRAK_COMMAND(TRAK_GET_DEVICE_LIST, false),
	[7]  = TRAK_COMMAND(TRAK_GET_INFO, true),
	[8]  = TRAK_COMMAND(TRAK_LOAD_BMP, true),
	[9]  = TRAK_COMMAND(TRAK_SAVE_BMP, true),
	[10] = TRAK_COMMAND(TRAK_CLR_BMP, true),
	[11] = TRAK_COMMAND(TRAK_SET_BMP, true),
	[12] = TRAK_COMMAND(TRAK_MERGE_BMP, true),
	[13] = TRAK_COMMAND(TRAK_GET_BMP, true),
	[14] = TRAK_COMMAND(TRAK_GET_AND_CLR_BMP, true),
	[15] = TRAK_COMMAND(TRAK_GET_DATABLOCK_BMP, true),
	[16] = TRAK_COMMAND(TRAK_TEST_DATABLOCK, false),
	[17] = TRAK_COMMAND(TRAK_RESUME_SNAP, false),
};

/* The command with exactly this code (number, size and direction), or NULL. */
static const struct trak_command *trak_command_find(unsigned int cmd)
{
	unsigned int nr = _IOC_NR(cmd);

	if (nr >= ARRAY_SIZE(trak_commands))
		return NULL;
	nr = array_index_nospec(nr, ARRAY_SIZE(trak_commands));
	return trak_commands[nr].code == cmd ? &trak_commands[nr] : NULL;
}

/* @dev is the resolved node for commands on a node, NULL for the others. */
static int trak_command_run(const struct trak_command *c,
			    struct trak_blkdev *dev, void *rec)
{
	switch (c->code) {
	case TRAK_ADD_FILTER_NODE:
		return trak_ioctl_add_filter_node(rec);
	case TRAK_ADD_SNAP_NODE:
		return trak_ioctl_add_snap_node(rec);
	case TRAK_RESUME_SNAP:
		return trak_ioctl_resume_snap(rec);
	case TRAK_GET_DATABLOCK_BMP:
		return trak_ioctl_get_datablock_bmp(dev, rec);
	case TRAK_DEL_NODE:
		return trak_ioctl_del_node(rec);
	case TRAK_START_NODE:
		return trak_ioctl_start_node(rec);
	case TRAK_STOP_NODE:
		return trak_ioctl_stop_node(rec);
	case TRAK_LOAD_BMP:
		return trak_ioctl_load_bmp(dev, rec);
	case TRAK_SAVE_BMP:
		return trak_ioctl_save_bmp(dev, rec);
	case TRAK_CLR_BMP:
		return trak_ioctl_clr_bmp(dev, rec);
	case TRAK_SET_BMP:
		return trak_ioctl_set_bmp(dev, rec);
	case TRAK_MERGE_BMP:
		return trak_ioctl_merge_bmp(dev, rec);
	case TRAK_GET_BMP:
		return trak_ioctl_get_bmp(dev, rec);
	case TRAK_GET_AND_CLR_BMP:
		return trak_ioctl_get_and_clr_bmp(dev, rec);
	case TRAK_TEST_DATABLOCK:
		return trak_ioctl_test_datablock(rec);
	case TRAK_GET_DEVICE_LIST:
		return trak_ioctl_get_device_list(rec);
	case TRAK_GET_INFO:
		return trak_ioctl_get_info(dev, rec);
	default:
		/* trak_command_find() gives no command outside the table. */
		return -ENOTTY;
	}
}

/* Resolves the record's minor under the registry lock and runs @c on it. */
static int trak_command_run_on_node(const struct trak_command *c, void *rec)
{
	int minor = *(s32 *)rec;
	struct trak_blkdev *dev;
	int rc;

	oxread_lock(&trak_blkdev_rwlock);
	dev = trak_blkdev_find(minor);
	if (!dev) {
		trak_log(TRAK_LOG_ERR, "%s(): Invalid TRAK minor=%d",
			 "trak_char_ioctl", minor);
		rc = -EINVAL;
	} else {
		rc = trak_command_run(c, dev, rec);
	}
	oxread_unlock(&trak_blkdev_rwlock);
	return rc;
}

long trak_char_ioctl(struct file *file, unsigned int cmd, unsigned long arg)
{
	const struct trak_command *c = trak_command_find(cmd);
	void __user *uarg = (void __user *)arg;
	unsigned int size = _IOC_SIZE(cmd);
	void *rec;
	int rc;

	trak_log(2, "%s(): cmd=0x%02x (%s)", __func__, cmd,
		 c ? c->name : "UNKNOWN");

	if (_IOC_TYPE(cmd) != TRAK_IOCTL_TYPE)
		return -ENOTTY;
	/* Every command acts on, or shows, devices of the whole system. */
	if (!capable(CAP_SYS_ADMIN))
		return -EPERM;
	if (_IOC_DIR(cmd) != _IOC_NONE && !access_ok(uarg, size))
		return -EFAULT;
	if (!c) {
		trak_log(TRAK_LOG_ERR, "%s(): Inappropriate ioctl cmd=%d",
			 __func__, cmd);
		return -ENOTTY;
	}

	rec = kmalloc(size, GFP_KERNEL);
	if (!rec) {
		/* Callers see the same error as for a bad address. */
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		return -EFAULT;
	}
	if (copy_from_user(rec, uarg, size)) {
		trak_log(TRAK_LOG_ERR, "%s(): copy_from_user() failed.",
			 __func__);
		rc = -EFAULT;
		goto out;
	}

	if (c->on_node)
		rc = trak_command_run_on_node(c, rec);
	else
		rc = trak_command_run(c, NULL, rec);
	if (rc)
		goto out;

	if ((_IOC_DIR(cmd) & _IOC_READ) && copy_to_user(uarg, rec, size)) {
		trak_log(TRAK_LOG_ERR, "%s(): copy_from_user() failed.",
			 __func__);
		rc = -EFAULT;
	}
out:
	kfree(rec);
	return rc;
}
