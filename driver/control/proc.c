// SPDX-License-Identifier: GPL-2.0
/*
 * The status tree under /proc/trak: one small text file per value, of
 * which "debug" can also be written to change the log verbosity.
 */
#include <linux/ctype.h>
#include <linux/proc_fs.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include "core/log.h"
#include "core/params.h"
#include "proc.h"

#define TRAK_PROC_WRITE_MAX	1024

static struct proc_dir_entry *trak_proc_root;

/* Global entries print the module parameter they point at. */
static ssize_t trak_read_proc(struct file *file, char __user *buf,
			      size_t count, loff_t *ppos)
{
	const int *value = pde_data(file_inode(file));
	char text[16];
	int len;

	len = scnprintf(text, sizeof(text), "%d\n", READ_ONCE(*value));
	trak_log(2, "%s(): %pD=%s", __func__, file, text);
	return simple_read_from_buffer(buf, count, ppos, text, len);
}

/*
 * Parses a decimal level as "debug" accepts it: an optional minus sign and
 * digits, followed by the end of the text, a blank or a newline.
 */
static int trak_parse_debug_level(const char *text, int *level)
{
	bool negative = *text == '-';
	unsigned long value = 0;

	if (negative)
		text++;
	while (isdigit(*text))
		value = value * 10 + (*text++ - '0');
	if (*text && *text != ' ' && *text != '\n')
		return -EINVAL;
	*level = negative ? -(int)value : (int)value;
	return 0;
}

static ssize_t trak_write_proc(struct file *file, const char __user *buffer,
			       size_t count, loff_t *ppos)
{
	char *text;
	int level;
	int rc;

	if (!count)
		return -EINVAL;

	text = kmalloc(TRAK_PROC_WRITE_MAX, GFP_KERNEL);
	if (!text) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		return -ENOMEM;
	}
	if (count > TRAK_PROC_WRITE_MAX) {
		rc = -EINVAL;
		goto out;
	}
	if (copy_from_user(text, buffer, count)) {
		rc = -EFAULT;
		goto out;
	}
	text[min_t(size_t, count, TRAK_PROC_WRITE_MAX - 1)] = '\0';

	rc = trak_parse_debug_level(text, &level);
	if (rc)
		goto out;
	WRITE_ONCE(trak_debug, level);
	trak_log(2, "%s(): trak_debug=%d", __func__, level);
	rc = count;
out:
	kfree(text);
	return rc;
}

static const struct proc_ops trak_proc_value_ops = {
	.proc_read	= trak_read_proc,
	.proc_lseek	= default_llseek,
};

static const struct proc_ops trak_proc_debug_ops = {
	.proc_read	= trak_read_proc,
	.proc_write	= trak_write_proc,
	.proc_lseek	= default_llseek,
};

static int trak_proc_add_value(const char *name, umode_t mode,
			       const struct proc_ops *ops, int *value)
{
	if (proc_create_data(name, mode, trak_proc_root, ops, value))
		return 0;
	trak_log(TRAK_LOG_ERR, "%s(): Failed to create /proc/trak/%s.",
		 "trak_create_proc", name);
	return -ENOMEM;
}

int trak_create_proc(void)
{
	int rc;

	trak_log(1, "%s(): Creating /proc/trak filesystem", __func__);
	trak_proc_root = proc_mkdir("trak", NULL);
	if (!trak_proc_root) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to create /proc/trak directory.",
			 __func__);
		return -ENOMEM;
	}

	rc = trak_proc_add_value("chr_major", 0444, &trak_proc_value_ops,
				 &trak_chr_major);
	if (!rc)
		rc = trak_proc_add_value("blk_major", 0444,
					 &trak_proc_value_ops, &trak_blk_major);
	if (!rc)
		rc = trak_proc_add_value("debug", 0644, &trak_proc_debug_ops,
					 &trak_debug);
	if (rc)
		trak_remove_proc();
	return rc;
}

void trak_remove_proc(void)
{
	if (!trak_proc_root)
		return;
	trak_log(1, "%s(): Removing /proc/trak tree.", __func__);
	proc_remove(trak_proc_root);
	trak_proc_root = NULL;
}
