// SPDX-License-Identifier: GPL-2.0
/*
 * The backup agent's commands on a filter's change bitmaps.  Every command
 * that changes a bitmap leaves its file consistent with memory.  The
 * dispatcher holds the registry lock for reading around each of them.
 */
#include <linux/bitmap.h>
#include <linux/err.h>
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

static void trak_bmp_apply_or(unsigned long *bits, const unsigned long *src,
			      unsigned int nbits)
{
	bitmap_or(bits, bits, src, nbits);
}

static void trak_bmp_apply_copy(unsigned long *bits, const unsigned long *src,
				unsigned int nbits)
{
	bitmap_copy(bits, src, nbits);
}

static void trak_bmp_apply_fill(unsigned long *bits, const unsigned long *src,
				unsigned int nbits)
{
	bitmap_fill(bits, nbits);
}

static void trak_bmp_apply_zero(unsigned long *bits, const unsigned long *src,
				unsigned int nbits)
{
	bitmap_zero(bits, nbits);
}

/*
 * A buffer for a whole bitmap in whole longs, zero past its size, as the
 * bitmap helpers read it.
 */
static unsigned long *trak_bmp_buffer(const struct trak_bmp_ref *b,
				      const char *func)
{
	unsigned long *buf = vzalloc(trak_bmp_alloc_size(b->size));

	if (!buf)
		trak_log(TRAK_LOG_ERR, "%s(): Failed to allocate a %d-byte buffer",
			 func, b->size);
	return buf;
}

/*
 * The caller's bitmap, copied in before any lock is taken: the copy may
 * fault.
 */
static unsigned long *trak_bmp_copy_in(const struct trak_bmp_ref *b, u64 data,
				       const char *func)
{
	unsigned long *buf = trak_bmp_buffer(b, func);

	if (!buf)
		return ERR_PTR(-ENOMEM);
	if (copy_from_user(buf, u64_to_user_ptr(data), b->size)) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to copyin the bitmap",
			 func);
		vfree(buf);
		return ERR_PTR(-EFAULT);
	}
	return buf;
}

/* Applies @apply with the caller's bitmap at @data, then saves. */
static int trak_bmp_edit_with_user_bits(struct trak_blkdev *dev,
					unsigned int kind, u64 data,
					void (*apply)(unsigned long *bits,
						      const unsigned long *src,
						      unsigned int nbits),
					const char *func)
{
	struct trak_bmp_ref b = trak_bmp_of(dev, kind);
	struct trak_bmp_edit edit = { .apply = apply, .adds_bits = true };
	unsigned long *buf = trak_bmp_copy_in(&b, data, func);

	if (IS_ERR(buf))
		return PTR_ERR(buf);
	edit.src = buf;
	trak_block_edit_bmp(dev, kind, &edit);
	vfree(buf);
	return 0;
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
	static const struct trak_bmp_edit clear = {
		.apply = trak_bmp_apply_zero
	};
	int rc = trak_bmp_check(dev, rec->kind, __func__, "Clearing");

	if (rc)
		return rc;
	trak_block_edit_bmp(dev, rec->kind, &clear);
	return 0;
}

int trak_ioctl_set_bmp(struct trak_blkdev *dev,
		       struct trak_bmp_data_args *rec)
{
	static const struct trak_bmp_edit fill = {
		.apply = trak_bmp_apply_fill, .adds_bits = true
	};
	int rc = trak_bmp_check(dev, rec->kind, __func__, "Setting");
	struct trak_bmp_ref b;

	if (rc)
		return rc;
	b = trak_bmp_of(dev, rec->kind);
	if (!rec->size != !rec->data) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): bitmap size and bitmap data pointer must either be both NULL or both not-NULL",
			 __func__);
		return -EINVAL;
	}
	if (!rec->data) {
		/* Every extent changed: the next backup copies everything. */
		trak_block_edit_bmp(dev, rec->kind, &fill);
		return 0;
	}
	rc = trak_bmp_check_size(&b, rec->size, __func__);
	if (rc)
		return rc;
	return trak_bmp_edit_with_user_bits(dev, rec->kind, rec->data,
					    trak_bmp_apply_copy, __func__);
}

int trak_ioctl_merge_bmp(struct trak_blkdev *dev,
			 struct trak_bmp_data_args *rec)
{
	int rc = trak_bmp_check_data(dev, rec, __func__, "Merging");

	if (rc)
		return rc;
	return trak_bmp_edit_with_user_bits(dev, rec->kind, rec->data,
					    trak_bmp_apply_or, __func__);
}

int trak_ioctl_get_bmp(struct trak_blkdev *dev,
		       struct trak_bmp_data_args *rec)
{
	int rc = trak_bmp_check_data(dev, rec, __func__, "Getting");
	struct trak_bmp_ref b;

	if (rc)
		return rc;
	b = trak_bmp_of(dev, rec->kind);
	if (copy_to_user(u64_to_user_ptr(rec->data), b.bits, b.size)) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to copyout the bitmap",
			 __func__);
		return -EFAULT;
	}
	return 0;
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
	struct trak_bmp_edit give_back = {
		.apply = trak_bmp_apply_or, .adds_bits = true
	};
	unsigned long *taken;
	struct trak_bmp_ref b;

	if (rc)
		return rc;
	b = trak_bmp_of(dev, rec->kind);
	taken = trak_bmp_buffer(&b, __func__);
	if (!taken)
		return -ENOMEM;

	oxwrite_lock(&dev->filter.io_lock);
	memcpy(taken, b.bits, b.size);
	bitmap_zero(b.bits, b.size * BITS_PER_BYTE);
	WRITE_ONCE(*b.dirty, 1);
	oxwrite_unlock(&dev->filter.io_lock);

	if (copy_to_user(u64_to_user_ptr(rec->data), taken, b.size)) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to copyout the bitmap",
			 __func__);
		/* Nothing was handed out: give the bits back. */
		give_back.src = taken;
		trak_block_edit_bmp(dev, rec->kind, &give_back);
		rc = -EFAULT;
	} else {
		trak_block_save_dirty_bmps(dev);
	}
	vfree(taken);
	return rc;
}
