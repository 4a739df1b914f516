// SPDX-License-Identifier: GPL-2.0
/*
 * The backup agent's commands on a filter's change bitmaps.  Every command
 * that changes a bitmap leaves its file consistent with memory.  The
 * dispatcher holds the registry lock for reading around each of them.
 */
#include <linux/string.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>

#include "bitmap.h"
#include "bmp_commands.h"
#include "core/log.h"
#include "core/params.h"

/* The checks every bitmap command makes; logs @what as its progress line. */
static int trak_bmp_check(struct trak_blkdev *dev, unsigned int kind,
			  const char *func, const char *what)
{
	trak_log(1, "%s(): %s %s bitmap of trak(%d, %d)", func, what,
		 trak_bmp_kind_name(kind), trak_blk_major, dev->minor);
	if (dev->dev_type != TRAK_DEV_FILTER) {
		trak_log(TRAK_LOG_ERR, "%s(): trak(%d, %d) is not a filter device",
			 func, trak_blk_major, dev->minor);
		return -EINVAL;
	}
	if (kind != TRAK_BMP_INCR && kind != TRAK_BMP_DIFF) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Invalid bitmap type %d (should be either %d or %d)",
			 func, kind, TRAK_BMP_INCR, TRAK_BMP_DIFF);
		return -EINVAL;
	}
	return 0;
}

static int trak_bmp_check_size(const struct trak_bmp_ref *b, int size,
			       const char *func)
{
	if (size != b->size) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Invalid bitmap size %d. Should have been %d",
			 func, size, b->size);
		return -EINVAL;
	}
	return 0;
}

/* The checks of commands that move bitmap data: kind, size, address. */
static int trak_bmp_check_data(struct trak_blkdev *dev,
			       struct trak_bmp_data_args *rec,
			       const char *func, const char *what)
{
	int rc = trak_bmp_check(dev, rec->kind, func, what);
	struct trak_bmp_ref b;

	if (rc)
		return rc;
	b = trak_bmp_of(dev, rec->kind);
	rc = trak_bmp_check_size(&b, rec->size, func);
	if (rc)
		return rc;
	if (!rec->data) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): NULL bitmap data pointer passed as input",
			 func);
		return -EINVAL;
	}
	return 0;
}

/* Marks the kind changed, so that the save below writes its file. */
static void trak_bmp_changed(struct trak_blkdev *dev, unsigned int kind)
{
	WRITE_ONCE(*trak_bmp_of(dev, kind).dirty, 1);
	trak_block_save_dirty_bmps(dev);
}

int trak_ioctl_load_bmp(struct trak_blkdev *dev, struct trak_bmp_args *rec)
{
	int rc = trak_bmp_check(dev, rec->kind, __func__, "Loading");

	return rc ? rc : trak_block_load_bmp(dev, rec->kind);
}

int trak_ioctl_save_bmp(struct trak_blkdev *dev, struct trak_bmp_args *rec)
{
	int rc = trak_bmp_check(dev, rec->kind, __func__, "Saving");

	return rc ? rc : trak_block_save_bmp(dev, rec->kind);
}

int trak_ioctl_clr_bmp(struct trak_blkdev *dev, struct trak_bmp_args *rec)
{
	int rc = trak_bmp_check(dev, rec->kind, __func__, "Clearing");
	struct trak_bmp_ref b;

	if (rc)
		return rc;
	b = trak_bmp_of(dev, rec->kind);
	memset(b.bits, 0, b.size);
	trak_bmp_changed(dev, rec->kind);
	return 0;
}

int trak_ioctl_set_bmp(struct trak_blkdev *dev,
		       struct trak_bmp_data_args *rec)
{
	int rc = trak_bmp_check(dev, rec->kind, __func__, "Setting");
	void __user *data = u64_to_user_ptr(rec->data);
	struct trak_bmp_ref b;

	if (rc)
		return rc;
	b = trak_bmp_of(dev, rec->kind);
	if (!rec->size != !data) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): bitmap size and bitmap data pointer must either be both NULL or both not-NULL",
			 __func__);
		return -EINVAL;
	}
	if (!data) {
		/* Every extent changed: the next backup copies everything. */
		memset(b.bits, 0xFF, b.size);
	} else {
		rc = trak_bmp_check_size(&b, rec->size, __func__);
		if (rc)
			return rc;
		if (copy_from_user(b.bits, data, b.size)) {
			trak_log(TRAK_LOG_ERR, "%s(): Failed to copyin the bitmap",
				 __func__);
			return -EFAULT;
		}
	}
	trak_bmp_changed(dev, rec->kind);
	return 0;
}

int trak_ioctl_merge_bmp(struct trak_blkdev *dev,
			 struct trak_bmp_data_args *rec)
{
	int rc = trak_bmp_check_data(dev, rec, __func__, "Merging");
	struct trak_bmp_ref b;
	u8 *buf, *bits;
	int i;

	if (rc)
		return rc;
	b = trak_bmp_of(dev, rec->kind);
	buf = vmalloc(b.size);
	if (!buf) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to allocate a %d-byte buffer",
			 __func__, b.size);
		return -ENOMEM;
	}
	if (copy_from_user(buf, u64_to_user_ptr(rec->data), b.size)) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to copyin the bitmap",
			 __func__);
		rc = -EFAULT;
		goto out;
	}
	bits = (u8 *)b.bits;
	for (i = 0; i < b.size; i++)
		bits[i] |= buf[i];
	trak_bmp_changed(dev, rec->kind);
out:
	vfree(buf);
	return rc;
}

static int trak_bmp_copy_out(struct trak_bmp_data_args *rec,
			     const struct trak_bmp_ref *b, const char *func)
{
	if (copy_to_user(u64_to_user_ptr(rec->data), b->bits, b->size)) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to copyout the bitmap",
			 func);
		return -EFAULT;
	}
	return 0;
}

int trak_ioctl_get_bmp(struct trak_blkdev *dev,
		       struct trak_bmp_data_args *rec)
{
	int rc = trak_bmp_check_data(dev, rec, __func__, "Getting");
	struct trak_bmp_ref b;

	if (rc)
		return rc;
	b = trak_bmp_of(dev, rec->kind);
	return trak_bmp_copy_out(rec, &b, __func__);
}

/*
 * Copy out, then clear.  The bitmap is taken and cleared while writes are
 * held off, so that no change lands between the two and is lost to both
 * backups; the copy to user space happens after, since it may fault.
 */
int trak_ioctl_get_and_clr_bmp(struct trak_blkdev *dev,
			       struct trak_bmp_data_args *rec)
{
	int rc = trak_bmp_check_data(dev, rec, __func__,
				     "Getting and clearing");
	struct trak_bmp_ref b;
	u8 *taken, *bits;
	int i;

	if (rc)
		return rc;
	b = trak_bmp_of(dev, rec->kind);
	taken = vmalloc(b.size);
	if (!taken) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to allocate a %d-byte buffer",
			 __func__, b.size);
		return -ENOMEM;
	}

	oxwrite_lock(&dev->filter.io_lock);
	memcpy(taken, b.bits, b.size);
	memset(b.bits, 0, b.size);
	oxwrite_unlock(&dev->filter.io_lock);

	if (copy_to_user(u64_to_user_ptr(rec->data), taken, b.size)) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to copyout the bitmap",
			 __func__);
		/* Nothing was handed out: give the bits back. */
		bits = (u8 *)b.bits;
		for (i = 0; i < b.size; i++)
			bits[i] |= taken[i];
		rc = -EFAULT;
	} else {
		trak_bmp_changed(dev, rec->kind);
	}
	vfree(taken);
	return rc;
}
