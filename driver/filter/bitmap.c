// SPDX-License-Identifier: GPL-2.0
/*
 * Persistence of the change bitmaps.  A file is marked dirty on disk by the
 * first change after a save, so that a file left behind by a crash is
 * recognised as stale; a bitmap that cannot be trusted becomes all ones:
 * a larger backup is preferred to a missed change.
 */
#include <linux/crc32.h>
#include <linux/fcntl.h>
#include <linux/kdev_t.h>
#include <linux/string.h>
#include <linux/sched.h>
#include <linux/vmalloc.h>
#include <linux/workqueue.h>
#include <asm/unaligned.h>

#include "bitmap.h"
#include "core/log.h"
#include "core/params.h"
#include "kdirtyd.h"
#include "util/devnode.h"
#include "util/file.h"

const char *trak_bmp_kind_name(unsigned int kind)
{
	switch (kind) {
	case TRAK_BMP_INCR:
		return "Incremental";
	case TRAK_BMP_DIFF:
		return "Differential";
	default:
		return "Unknown";
	}
}

/* Bitmaps are allocated in whole longs, for the kernel's bitmap helpers. */
u32 trak_bmp_alloc_size(u32 size)
{
	return round_up(size, sizeof(unsigned long));
}

struct trak_bmp_ref trak_bmp_of(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_filter *f = &dev->filter;
	struct trak_bmp_ref ref = { .kind_name = trak_bmp_kind_name(kind) };

	if (kind == TRAK_BMP_INCR) {
		ref.bits = f->incr_bmp;
		ref.size = f->incr_bmp_size;
		ref.dirty = &f->incr_bmp_dirty;
		ref.fname = f->incr_bmp_fname;
	} else {
		ref.bits = f->diff_bmp;
		ref.size = f->diff_bmp_size;
		ref.dirty = &f->diff_bmp_dirty;
		ref.fname = f->diff_bmp_fname;
	}
	return ref;
}

/* JAMCRC: the reflected CRC-32 register, without the final inversion. */
void trak_crc32(const u8 *buf, int len, u32 *crc)
{
	if (len > 0)
		*crc = crc32_le(*crc, buf, len);
}

static u32 trak_bmp_checksum(const void *buf, u32 size)
{
	u32 crc = 0xFFFFFFFF;

	trak_crc32(buf, size, &crc);
	return crc;
}

/* Bitmap files must not live on the partition whose changes they record. */
static bool trak_bmp_on_own_partition(struct trak_blkdev *dev,
				      const char *fname)
{
	return trak_get_file_devt(fname) == MKDEV(trak_blk_major, dev->minor);
}

/* Reads @len bytes at @off: 0, 1 when the file ended early, or an error. */
static int trak_bmp_read_field(struct trak_file *file, loff_t off, void *buf,
			       int len)
{
	int rc = trak_fread(file, off, buf, len);

	if (rc < 0)
		return rc;
	return rc == len ? 0 : 1;
}

/* Reads and checks a saved bitmap into @buf: 0 accepted, 1 stale, < 0 error. */
static int trak_bmp_read_file(struct trak_file *file, struct trak_bmp_ref *b,
			      u8 *buf)
{
	u8 magic[TRAK_BMP_MAGIC_LEN];
	__le32 size, crc;
	u8 dirty;
	int rc;

	rc = trak_bmp_read_field(file, 0, magic, sizeof(magic));
	if (rc < 0)
		return rc;
	if (rc || memcmp(magic, TRAK_BMP_MAGIC, TRAK_BMP_MAGIC_LEN)) {
		trak_log(TRAK_LOG_ERR, "%s(): File %s is corrupt: Invalid prefix.",
			 "trak_block_load_bmp", b->fname);
		return -EIO;
	}

	rc = trak_bmp_read_field(file, 7, &dirty, 1);
	if (rc < 0)
		return rc;
	if (rc || dirty) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): File %s is dirty. Ignoring file contents.",
			 "trak_block_load_bmp", b->fname);
		return 1;
	}

	rc = trak_bmp_read_field(file, 8, &size, sizeof(size));
	if (rc < 0)
		return rc;
	if (rc || le32_to_cpu(size) != b->size) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): File %s contains bitmap of invalid size. Ignoring file contents.",
			 "trak_block_load_bmp", b->fname);
		return 1;
	}

	rc = trak_bmp_read_field(file, 12, &crc, sizeof(crc));
	if (!rc)
		rc = trak_bmp_read_field(file, TRAK_BMP_HEADER_LEN, buf, b->size);
	if (rc < 0)
		return rc;
	if (rc || le32_to_cpu(crc) != trak_bmp_checksum(buf, b->size)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): File %s has invalid checksum. Ignoring file contents.",
			 "trak_block_load_bmp", b->fname);
		return 1;
	}
	return 0;
}

static int trak_do_load_bmp(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_bmp_ref b = trak_bmp_of(dev, kind);
	struct trak_file *file;
	u8 *buf;
	int rc;

	trak_log(2, "%s(): Loading %s bitmap of trak(%d, %d)", "trak_block_load_bmp",
		 b.kind_name, trak_blk_major, dev->minor);
	buf = vmalloc(b.size);
	if (!buf) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to allocate %d bytes.",
			 "trak_block_load_bmp", b.size);
		return -ENOMEM;
	}

	oxmutex_lock(&dev->filter.bmp_lock);
	file = trak_fopen(b.fname, O_RDONLY | O_LARGEFILE, 0600);
	rc = file ? trak_bmp_read_file(file, &b, buf) : -EIO;
	if (rc == 0) {
		*b.dirty = 0;
		memcpy(b.bits, buf, b.size);
	} else {
		/* Every extent counts as changed. */
		*b.dirty = 1;
		memset(b.bits, 0xFF, trak_bmp_alloc_size(b.size));
		if (rc > 0)
			rc = 0;
	}
	if (file)
		trak_fclose(file);
	oxmutex_unlock(&dev->filter.bmp_lock);
	vfree(buf);
	return rc;
}

static int trak_bmp_write_file(struct trak_bmp_ref *b, const u8 *copy)
{
	u8 header[TRAK_BMP_HEADER_LEN] = TRAK_BMP_MAGIC;
	struct trak_file *file;
	int rc;

	put_unaligned_le32(b->size, header + 8);
	put_unaligned_le32(trak_bmp_checksum(copy, b->size), header + 12);

	file = trak_fopen(b->fname, O_WRONLY | O_CREAT | O_TRUNC | O_SYNC |
			  O_LARGEFILE, 0600);
	if (!file)
		return -EIO;
	rc = trak_fwrite(file, 0, header, sizeof(header));
	if (rc >= 0)
		rc = trak_fwrite(file, sizeof(header), copy, b->size);
	trak_fclose(file);
	return rc < 0 ? rc : 0;
}

static int trak_do_save_bmp(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_bmp_ref b = trak_bmp_of(dev, kind);
	u8 *copy;
	int rc;

	trak_log(2, "%s(): Saving %s bitmap of trak(%d, %d)", "trak_block_save_bmp",
		 b.kind_name, trak_blk_major, dev->minor);
	copy = vmalloc(b.size);
	if (!copy) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to allocate %d bytes.",
			 "trak_block_save_bmp", b.size);
		return -ENOMEM;
	}

	/*
	 * Clear the flag before taking the copy: a write landing during the
	 * copy raises it again and marks the file dirty anew.
	 */
	WRITE_ONCE(*b.dirty, 0);
	/* Orders the clear before the copy; pairs with the bit-setting cmpxchg. */
	smp_mb();
	memcpy(copy, b.bits, b.size);

	oxmutex_lock(&dev->filter.bmp_lock);
	trak_kill_dirty_requests(dev, kind);
	if (trak_bmp_on_own_partition(dev, b.fname)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Can't save bitmap to %s. The file must be moved to a different partition.",
			 "trak_block_save_bmp", b.fname);
		rc = -EINVAL;
	} else {
		rc = trak_bmp_write_file(&b, copy);
	}
	if (rc)
		WRITE_ONCE(*b.dirty, 1);
	else if (READ_ONCE(*b.dirty))
		/*
		 * A write raised the flag after the copy, and its request
		 * may have been cancelled above: the file just written lacks
		 * that change, so it must be marked dirty again.
		 */
		trak_sched_write_dirty_flag(dev, kind);
	oxmutex_unlock(&dev->filter.bmp_lock);
	vfree(copy);
	return rc;
}

static int trak_do_save_dirty_bmps(struct trak_blkdev *dev,
				   unsigned int unused)
{
	int rc = 0;

	trak_log(1, "%s(): Saving dirty incr/diff bitmaps to disk",
		 "trak_block_save_dirty_bmps");
	oxmutex_lock(&dev->filter.bmp_lock);
	if (READ_ONCE(dev->filter.incr_bmp_dirty))
		rc = trak_do_save_bmp(dev, TRAK_BMP_INCR);
	if (!rc && READ_ONCE(dev->filter.diff_bmp_dirty))
		rc = trak_do_save_bmp(dev, TRAK_BMP_DIFF);
	oxmutex_unlock(&dev->filter.bmp_lock);
	return rc;
}

/* Called with bmp_lock held, by the dirty-flag thread and by clean-ups. */
int trak_block_write_dirty_flag(struct trak_blkdev *dev, unsigned int kind,
				int flag)
{
	struct trak_bmp_ref b = trak_bmp_of(dev, kind);
	u8 dirty = flag;
	struct trak_file *file;
	int flags = O_WRONLY | O_CREAT | O_SYNC | O_LARGEFILE;
	int rc;

	trak_log(2, "%s(): Writing dirty flag %d into %s bitmap of trak(%d, %d)",
		 __func__, flag, b.kind_name, trak_blk_major, dev->minor);
	oxmutex_lock(&dev->filter.bmp_lock);
	if (!flag)
		trak_kill_dirty_requests(dev, kind);
	if (trak_bmp_on_own_partition(dev, b.fname)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Can't set dirty flag in %s. The file must be moved to a different partition.",
			 __func__, b.fname);
		rc = -EINVAL;
		goto out;
	}

	/* Marking dirty discards the saved bitmap: it is stale from now on. */
	if (flag)
		flags |= O_TRUNC;
	file = trak_fopen(b.fname, flags, 0600);
	if (!file) {
		rc = -EIO;
		goto out;
	}
	rc = trak_fwrite(file, 0, TRAK_BMP_MAGIC, TRAK_BMP_MAGIC_LEN);
	if (rc >= 0)
		rc = trak_fwrite(file, TRAK_BMP_MAGIC_LEN, &dirty, 1);
	trak_fclose(file);
	rc = rc < 0 ? rc : 0;
out:
	oxmutex_unlock(&dev->filter.bmp_lock);
	return rc;
}

/*
 * Bitmap files are opened by path, and a path means something only to a
 * task with a file-system context: a process closing the node as it exits
 * has none left, and a chrooted one has another root.  So the file work of
 * user-space callers runs in a kernel worker, which resolves every path
 * from the system's root; kernel threads (kdirtyd) do it themselves.
 */
struct trak_bmp_work {
	struct work_struct work;
	int (*fn)(struct trak_blkdev *dev, unsigned int kind);
	struct trak_blkdev *dev;
	unsigned int kind;
	int rc;
};

static void trak_bmp_work_fn(struct work_struct *work)
{
	struct trak_bmp_work *w = container_of(work, struct trak_bmp_work, work);

	w->rc = w->fn(w->dev, w->kind);
}

static int trak_bmp_in_kernel_context(int (*fn)(struct trak_blkdev *dev,
						 unsigned int kind),
				      struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_bmp_work w = { .fn = fn, .dev = dev, .kind = kind };

	if (current->flags & PF_KTHREAD)
		return fn(dev, kind);

	INIT_WORK_ONSTACK(&w.work, trak_bmp_work_fn);
	queue_work(system_unbound_wq, &w.work);
	flush_work(&w.work);
	destroy_work_on_stack(&w.work);
	return w.rc;
}

int trak_block_load_bmp(struct trak_blkdev *dev, unsigned int kind)
{
	return trak_bmp_in_kernel_context(trak_do_load_bmp, dev, kind);
}

int trak_block_save_bmp(struct trak_blkdev *dev, unsigned int kind)
{
	return trak_bmp_in_kernel_context(trak_do_save_bmp, dev, kind);
}

int trak_block_save_dirty_bmps(struct trak_blkdev *dev)
{
	return trak_bmp_in_kernel_context(trak_do_save_dirty_bmps, dev, 0);
}
