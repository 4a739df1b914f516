// SPDX-License-Identifier: GPL-2.0
/*
 * The control character device.  Its only real operation is ioctl; the
 * device class makes devtmpfs/udev create /dev/trakctl for it.
 */
#include <linux/device.h>
#include <linux/fs.h>
#include <linux/module.h>

#include "chardev.h"
#include "core/log.h"
#include "core/params.h"
#include "ioctl.h"

static bool trak_chr_registered;
static struct class *trak_class;

static ssize_t trak_char_read(struct file *file, char __user *buf,
			      size_t count, loff_t *ppos)
{
	return 0;
}

static ssize_t trak_char_write(struct file *file, const char __user *buf,
			       size_t count, loff_t *ppos)
{
	return 0;
}

static loff_t trak_char_llseek(struct file *file, loff_t offset, int whence)
{
	return 0;
}

static int trak_char_open(struct inode *inode, struct file *file)
{
	return 0;
}

static int trak_char_release(struct inode *inode, struct file *file)
{
	return 0;
}

static const struct file_operations trak_char_fops = {
	.owner		= THIS_MODULE,
	.read		= trak_char_read,
	.write		= trak_char_write,
	.llseek		= trak_char_llseek,
	.open		= trak_char_open,
	.release	= trak_char_release,
	.unlocked_ioctl	= trak_char_ioctl,
	.compat_ioctl	= compat_ptr_ioctl,
};

static int trak_char_create_node(void)
{
	struct device *dev;

	trak_class = class_create(THIS_MODULE, "trak");
	if (IS_ERR(trak_class))
		return PTR_ERR(trak_class);

	dev = device_create(trak_class, NULL, MKDEV(trak_chr_major, 0), NULL,
			    TRAK_CTL_NODE_NAME);
	if (IS_ERR(dev)) {
		class_destroy(trak_class);
		return PTR_ERR(dev);
	}
	return 0;
}

static void trak_char_remove_node(void)
{
	device_destroy(trak_class, MKDEV(trak_chr_major, 0));
	class_destroy(trak_class);
}

int trak_char_init(void)
{
	int rc;

	trak_log(2, "%s(): Initializing character device", __func__);
	rc = register_chrdev(trak_chr_major, "trak", &trak_char_fops);
	if (rc < 0) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to register character device: rc=%d.",
			 __func__, rc);
		return rc;
	}
	if (trak_chr_major == 0)
		trak_chr_major = rc;
	trak_log(1, "%s(): trak_chr_major=%d", __func__, trak_chr_major);

	rc = trak_char_create_node();
	if (rc) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Failed to create /dev/%s: rc=%d.", __func__,
			 TRAK_CTL_NODE_NAME, rc);
		unregister_chrdev(trak_chr_major, "trak");
		return rc;
	}
	trak_chr_registered = true;
	return 0;
}

int trak_char_destroy(void)
{
	if (trak_chr_registered) {
		trak_log(1, "%s(): Unregistering character device driver",
			 __func__);
		trak_char_remove_node();
		unregister_chrdev(trak_chr_major, "trak");
		trak_chr_registered = false;
	}
	return 0;
}
