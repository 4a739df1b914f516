// SPDX-License-Identifier: GPL-2.0
/*
 * In-kernel file access: the change bitmaps, the COW files and the
 * self-test's dumps are ordinary files that the driver opens, reads and
 * writes at absolute offsets.
 */
#include <linux/err.h>
#include <linux/fcntl.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "core/log.h"
#include "file.h"

static const char *trak_access_mode(int flags)
{
	switch (flags & O_ACCMODE) {
	case O_RDONLY:
		return "reading";
	case O_WRONLY:
		return "writing";
	default:
		return "reading and writing";
	}
}

struct trak_file *trak_fopen(const char *path, int flags, int mode)
{
	struct trak_file *file;

	if (WARN_ON(!path))
		return NULL;
	file = kzalloc(sizeof(*file), GFP_KERNEL);
	if (file)
		file->name = kstrdup(path, GFP_KERNEL);
	if (!file || !file->name) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		kfree(file);
		return NULL;
	}

	file->filp = filp_open(path, flags, mode);
	if (!IS_ERR(file->filp))
		return file;

	trak_log(TRAK_LOG_ERR, "%s(): Failed to open file %s for %s: errno=%ld",
		 __func__, path, trak_access_mode(flags), PTR_ERR(file->filp));
	kfree(file->name);
	kfree(file);
	return NULL;
}

static bool trak_file_valid(const struct trak_file *file, const char *func)
{
	if (file && !IS_ERR_OR_NULL(file->filp))
		return true;
	trak_log(TRAK_LOG_ERR,
		 "%s(): NULL or invalid file pointer passed as input!", func);
	return false;
}

/* Reads until @count bytes arrived or the file ended; a short read is logged. */
int trak_fread(struct trak_file *file, loff_t off, void *buf, int count)
{
	int done = 0;
	ssize_t rc;

	if (!trak_file_valid(file, __func__))
		return -EINVAL;

	while (done < count) {
		rc = kernel_read(file->filp, buf + done, count - done, &off);
		if (rc < 0) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Failed to read %d bytes from %s: rc=%zd",
				 __func__, count - done, file->name, rc);
			return rc;
		}
		if (!rc) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Unexpected EOF while trying to read %d bytes from %s",
				 __func__, count - done, file->name);
			break;
		}
		done += rc;
	}
	return done;
}

/* Writes all of @count bytes; anything less is a failure. */
int trak_fwrite(struct trak_file *file, loff_t off, const void *buf,
		int count)
{
	int done = 0;
	ssize_t rc;

	if (!trak_file_valid(file, __func__))
		return -EINVAL;

	while (done < count) {
		rc = kernel_write(file->filp, buf + done, count - done, &off);
		if (rc < 0) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Failed to write %d bytes into %s: rc=%zd",
				 __func__, count - done, file->name, rc);
			return rc;
		}
		if (!rc) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Short write into %s: wrote %d instead of %d",
				 __func__, file->name, done, count);
			return -EIO;
		}
		done += rc;
	}
	return done;
}

int trak_fclose(struct trak_file *file)
{
	int rc = 0;

	if (!IS_ERR_OR_NULL(file->filp)) {
		rc = filp_close(file->filp, NULL);
		/*
		 * A kernel thread's last reference is dropped later, by a
		 * worker; finish it now, so that the file is really closed
		 * (and its file system can be unmounted) when we return.
		 */
		if (current->flags & PF_KTHREAD)
			flush_delayed_fput();
	}
	kfree(file->name);
	kfree(file);
	return rc;
}

/* Empties an open file, durably: its new size is on disk when it returns. */
int trak_ftruncate(struct trak_file *file)
{
	int rc;

	if (WARN_ON(!file) || IS_ERR_OR_NULL(file->filp))
		return -EINVAL;
	rc = vfs_truncate(&file->filp->f_path, 0);
	return rc ?: vfs_fsync(file->filp, 0);
}

/*
 * A data sync: block allocation reaches the journal, a change of times
 * alone does not cost a commit.
 */
int trak_fdatasync(struct trak_file *file)
{
	if (WARN_ON(!file) || !file->filp || !file->filp->f_op->fsync)
		return 0;
	return vfs_fsync(file->filp, 1);
}

/* The file's size in bytes, or -EINVAL for an invalid handle. */
loff_t trak_fsize(struct trak_file *file)
{
	if (!trak_file_valid(file, __func__))
		return -EINVAL;
	return i_size_read(file_inode(file->filp));
}
