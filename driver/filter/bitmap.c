// SPDX-License-Identifier: GPL-2.0
/*
 * Persistence of the change bitmaps.  A file is marked dirty on disk by the
 * first change after a save, so that a file left behind by a crash is
 * recognised as stale; a bitmap that cannot be trusted becomes all ones:
 * a larger backup is preferred to a missed change.
 */
#include <linux/bitmap.h>
#include <linux/crc32.h>
#include <linux/fcntl.h>
#include <linux/fs.h>
#include <linux/kdev_t.h>
#include <linux/string.h>
#include <linux/sched.h>
#include <linux/vmalloc.h>
#include <linux/workqueue.h>
#include <asm/unaligned.h>

#include "bitmap.h"
#include "core/log.h"
#include "core/params.h"
#include "guard.h"
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

/* The bitmap's bits as the kernel's bitmap helpers count them. */
static unsigned int trak_bmp_nbits(const struct trak_bmp_ref *b)
{
	return b->size * BITS_PER_BYTE;
}

/*
 * Replaces the live bitmap by the file's (@rc 0) or by all ones, with
 * writes held off.
 */
static void trak_bmp_install(struct trak_blkdev *dev, unsigned int kind,
			     const unsigned long *loaded, int rc)
{
	struct trak_bmp_ref b = trak_bmp_of(dev, kind);

	oxwrite_lock(&dev->filter.io_lock);
	if (rc == 0) {
		bitmap_copy(b.bits, loaded, trak_bmp_nbits(&b));
		WRITE_ONCE(*b.dirty, 0);
	} else {
		/* Every extent counts as changed. */
		bitmap_fill(b.bits, trak_bmp_nbits(&b));
		WRITE_ONCE(*b.dirty, 1);
	}
	trak_guard_loaded(dev, kind, rc == 0);
	oxwrite_unlock(&dev->filter.io_lock);
}

static int trak_do_load_bmp(struct trak_blkdev *dev, unsigned int kind,
			    const void *unused)
{
	struct trak_bmp_ref b = trak_bmp_of(dev, kind);
	struct trak_file *file;
	unsigned long *buf;
	int rc;

	trak_log(2, "%s(): Loading %s bitmap of trak(%d, %d)", "trak_block_load_bmp",
		 b.kind_name, trak_blk_major, dev->minor);
	/* Whole longs, zero past the size, for bitmap_copy(). */
	buf = vzalloc(trak_bmp_alloc_size(b.size));
	if (!buf) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to allocate %d bytes.",
			 "trak_block_load_bmp", b.size);
		return -ENOMEM;
	}

	oxmutex_lock(&dev->filter.bmp_lock);
	trak_guard_wait_settled(dev, kind);
	file = trak_fopen(b.fname, O_RDONLY | O_LARGEFILE, 0600);
	rc = file ? trak_bmp_read_file(file, &b, (u8 *)buf) : -EIO;
	trak_bmp_install(dev, kind, buf, rc);
	if (rc > 0)
		rc = 0;
	if (file)
		trak_fclose(file);
	oxmutex_unlock(&dev->filter.bmp_lock);
	vfree(buf);
	return rc;
}

/* "TRAKBMP" and the dirty byte @flag: all of a file marked dirty. */
static void trak_bmp_flag_head(u8 head[TRAK_BMP_MAGIC_LEN + 1], int flag)
{
	memcpy(head, TRAK_BMP_MAGIC, TRAK_BMP_MAGIC_LEN);
	head[TRAK_BMP_MAGIC_LEN] = flag;
}

/*
 * Writes the whole file, header and bitmap in @image, in one synced write
 * and with the dirty byte set: it becomes clean only when the save writes
 * the flag last (trak_block_write_dirty_flag()).
 */
static int trak_bmp_write_file(struct trak_bmp_ref *b, u8 *image)
{
	const u8 *bits = image + TRAK_BMP_HEADER_LEN;
	struct trak_file *file;
	int rc;

	trak_bmp_flag_head(image, 1);
	put_unaligned_le32(b->size, image + 8);
	put_unaligned_le32(trak_bmp_checksum(bits, b->size), image + 12);

	file = trak_fopen(b->fname, O_WRONLY | O_CREAT | O_TRUNC | O_SYNC |
			  O_LARGEFILE, 0600);
	if (!file)
		return -EIO;
	rc = trak_fwrite(file, 0, image, TRAK_BMP_HEADER_LEN + b->size);
	trak_fclose(file);
	return rc < 0 ? rc : 0;
}

/*
 * A save, in three steps that each leave a file a crash cannot make lie:
 * the file is marked dirty first (if it was clean), then rewritten whole
 * but still dirty, then made clean by its flag alone.  Writes need not
 * wait for the rewrite, which may wait for a journal commit; only writes
 * that set new bits wait for the clean flag, and then for the next mark.
 */
static int trak_do_save_bmp(struct trak_blkdev *dev, unsigned int kind,
			    const void *unused)
{
	struct trak_bmp_ref b = trak_bmp_of(dev, kind);
	struct trak_filter *f = &dev->filter;
	u8 *image;
	int rc;

	trak_log(2, "%s(): Saving %s bitmap of trak(%d, %d)", "trak_block_save_bmp",
		 b.kind_name, trak_blk_major, dev->minor);
	image = vmalloc(TRAK_BMP_HEADER_LEN + b.size);
	if (!image) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to allocate %d bytes.",
			 "trak_block_save_bmp", b.size);
		return -ENOMEM;
	}

	oxmutex_lock(&f->bmp_lock);
	if (trak_bmp_on_own_partition(dev, b.fname)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Can't save bitmap to %s. The file must be moved to a different partition.",
			 "trak_block_save_bmp", b.fname);
		rc = -EINVAL;
		goto failed;
	}
	trak_make_bmp_file_dirty(dev, kind);

	/*
	 * The flag is cleared with the copy, under the same exclusion of
	 * writes: a write after the copy raises it again.
	 */
	oxwrite_lock(&f->io_lock);
	WRITE_ONCE(*b.dirty, 0);
	memcpy(image + TRAK_BMP_HEADER_LEN, b.bits, b.size);
	oxwrite_unlock(&f->io_lock);

	rc = trak_bmp_write_file(&b, image);
	if (rc)
		goto failed;
	if (!trak_guard_begin_clean(dev, kind)) {
		/* The copy is stale already: the file stays dirty. */
		trak_block_truncate_dirty_bmp(dev, kind);
		goto out;
	}
	rc = trak_block_write_dirty_flag(dev, kind, 0);
	if (rc)
		WRITE_ONCE(*b.dirty, 1);
	trak_guard_end_clean(dev, kind);
	goto out;
failed:
	WRITE_ONCE(*b.dirty, 1);
out:
	oxmutex_unlock(&f->bmp_lock);
	vfree(image);
	return rc;
}

static int trak_do_save_dirty_bmps(struct trak_blkdev *dev,
				   unsigned int unused, const void *none)
{
	int rc = 0;

	trak_log(1, "%s(): Saving dirty incr/diff bitmaps to disk",
		 "trak_block_save_dirty_bmps");
	oxmutex_lock(&dev->filter.bmp_lock);
	if (READ_ONCE(dev->filter.incr_bmp_dirty))
		rc = trak_do_save_bmp(dev, TRAK_BMP_INCR, NULL);
	if (!rc && READ_ONCE(dev->filter.diff_bmp_dirty))
		rc = trak_do_save_bmp(dev, TRAK_BMP_DIFF, NULL);
	oxmutex_unlock(&dev->filter.bmp_lock);
	return rc;
}

/*
 * Changes a live bitmap with writes held off, then saves.  A change that
 * may add bits marks the file dirty first: a write to an added extent
 * passes without a mark of its own, and the file must not read as clean
 * without that extent.
 */
static int trak_do_edit_bmp(struct trak_blkdev *dev, unsigned int kind,
			    const void *arg)
{
	const struct trak_bmp_edit *edit = arg;
	struct trak_bmp_ref b = trak_bmp_of(dev, kind);
	struct trak_filter *f = &dev->filter;
	int rc;

	oxmutex_lock(&f->bmp_lock);
	if (edit->adds_bits)
		trak_make_bmp_file_dirty(dev, kind);
	oxwrite_lock(&f->io_lock);
	edit->apply(b.bits, edit->src, trak_bmp_nbits(&b));
	WRITE_ONCE(*b.dirty, 1);
	oxwrite_unlock(&f->io_lock);
	rc = trak_do_save_dirty_bmps(dev, kind, NULL);
	oxmutex_unlock(&f->bmp_lock);
	return rc;
}

/*
 * Writes the dirty byte @flag into the file in place: 1 marks the file
 * dirty, 0 ends a save.  Synced as data only, and without time stamps:
 * then the flag of a file that a save wrote whole needs no journal
 * commit, which could wait for writes that another node holds until
 * kdirtyd, the writer of this very flag, has marked that node's files.
 * The caller has the file to itself (the node's guard).
 */
int trak_block_write_dirty_flag(struct trak_blkdev *dev, unsigned int kind,
				int flag)
{
	struct trak_bmp_ref b = trak_bmp_of(dev, kind);
	u8 head[TRAK_BMP_MAGIC_LEN + 1];
	struct trak_file *file;
	int rc;

	trak_log(2, "%s(): Writing dirty flag %d into %s bitmap of trak(%d, %d)",
		 __func__, flag, b.kind_name, trak_blk_major, dev->minor);
	if (trak_bmp_on_own_partition(dev, b.fname)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Can't set dirty flag in %s. The file must be moved to a different partition.",
			 __func__, b.fname);
		return -EINVAL;
	}
	file = trak_fopen(b.fname, O_WRONLY | O_CREAT | O_DSYNC | O_LARGEFILE,
			  0600);
	if (!file)
		return -EIO;
	file->filp->f_mode |= FMODE_NOCMTIME;
	trak_bmp_flag_head(head, flag);
	rc = trak_fwrite(file, 0, head, sizeof(head));
	trak_fclose(file);
	return rc < 0 ? rc : 0;
}

/*
 * Cuts a file marked dirty to its short form: the bitmap saved in it is
 * stale.  Not synced: the flag on disk already makes the file dirty.
 */
void trak_block_truncate_dirty_bmp(struct trak_blkdev *dev, unsigned int kind)
{
	struct trak_bmp_ref b = trak_bmp_of(dev, kind);
	u8 head[TRAK_BMP_MAGIC_LEN + 1];
	struct trak_file *file;

	file = trak_fopen(b.fname, O_WRONLY | O_CREAT | O_TRUNC | O_LARGEFILE,
			  0600);
	if (!file)
		return;
	trak_bmp_flag_head(head, 1);
	trak_fwrite(file, 0, head, sizeof(head));
	trak_fclose(file);
}

/*
 * Bitmap files are opened by path, and a path means something only to a
 * task with a file-system context: a process closing the node as it exits
 * has none left, and a chrooted one has another root.  So the file work of
 * user-space callers runs in a kernel worker, which resolves every path
 * from the system's root; kernel threads do it themselves.
 */
struct trak_bmp_work {
	struct work_struct work;
	int (*fn)(struct trak_blkdev *dev, unsigned int kind, const void *arg);
	struct trak_blkdev *dev;
	unsigned int kind;
	const void *arg;
	int rc;
};

static void trak_bmp_work_fn(struct work_struct *work)
{
	struct trak_bmp_work *w = container_of(work, struct trak_bmp_work, work);

	w->rc = w->fn(w->dev, w->kind, w->arg);
}

static int trak_bmp_in_kernel_context(int (*fn)(struct trak_blkdev *dev,
						 unsigned int kind,
						 const void *arg),
				      struct trak_blkdev *dev, unsigned int kind,
				      const void *arg)
{
	struct trak_bmp_work w = {
		.fn = fn, .dev = dev, .kind = kind, .arg = arg
	};

	if (current->flags & PF_KTHREAD)
		return fn(dev, kind, arg);

	INIT_WORK_ONSTACK(&w.work, trak_bmp_work_fn);
	queue_work(system_unbound_wq, &w.work);
	flush_work(&w.work);
	destroy_work_on_stack(&w.work);
	return w.rc;
}

int trak_block_load_bmp(struct trak_blkdev *dev, unsigned int kind)
{
	return trak_bmp_in_kernel_context(trak_do_load_bmp, dev, kind, NULL);
}

int trak_block_save_bmp(struct trak_blkdev *dev, unsigned int kind)
{
	return trak_bmp_in_kernel_context(trak_do_save_bmp, dev, kind, NULL);
}

int trak_block_save_dirty_bmps(struct trak_blkdev *dev)
{
	return trak_bmp_in_kernel_context(trak_do_save_dirty_bmps, dev, 0,
					  NULL);
}

int trak_block_edit_bmp(struct trak_blkdev *dev, unsigned int kind,
			const struct trak_bmp_edit *edit)
{
	return trak_bmp_in_kernel_context(trak_do_edit_bmp, dev, kind, edit);
}
