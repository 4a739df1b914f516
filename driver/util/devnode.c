// SPDX-License-Identifier: GPL-2.0
/*
 * Path helpers: device nodes under /dev/trak, the dentry of a path, and the
 * block device holding a path.
 */
#include <linux/blkdev.h>
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/kdev_t.h>
#include <linux/namei.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "core/log.h"
#include "devnode.h"

/* Creates /dev/trak when it is missing, so that users find the nodes. */
static void trak_make_dev_dir(void)
{
	struct dentry *dentry;
	struct path parent;

	dentry = kern_path_create(AT_FDCWD, TRAK_DEV_DIR, &parent,
				  LOOKUP_DIRECTORY);
	if (IS_ERR(dentry))
		return;
	vfs_mkdir(&init_user_ns, d_inode(parent.dentry), dentry, 0755);
	done_path_create(&parent, dentry);
}

int trak_mknod(const char *path, int block, int major, int minor)
{
	umode_t mode = (block ? S_IFBLK : S_IFCHR) | 0600;
	struct dentry *dentry;
	struct path parent;
	int rc;

	trak_log(3, "%s(): fname=%s, block=%d, dev=(%d, %d)", __func__, path,
		 block, major, minor);
	if (!strncmp(path, TRAK_DEV_DIR "/", strlen(TRAK_DEV_DIR "/")))
		trak_make_dev_dir();

	dentry = kern_path_create(AT_FDCWD, path, &parent, 0);
	if (IS_ERR(dentry)) {
		rc = PTR_ERR(dentry);
		trak_log(TRAK_LOG_ERR, "%s(): Failed to lookup %s: rc=%d",
			 __func__, path, rc);
		return rc;
	}
	rc = vfs_mknod(&init_user_ns, d_inode(parent.dentry), dentry, mode,
		       MKDEV(major, minor));
	if (rc)
		trak_log(TRAK_LOG_ERR, "%s(): Failed to mknod %s: rc=%d",
			 __func__, path, rc);
	done_path_create(&parent, dentry);
	return rc;
}

/* Removes a name; -ENOENT, for a name already gone, is not logged. */
int trak_unlink(const char *path)
{
	const char *name = strrchr(path, '/');
	struct dentry *dentry;
	struct path parent;
	struct inode *dir;
	char *dir_name;
	int rc;

	trak_log(3, "%s(): fname=%s", __func__, path);
	if (!name || !name[1])
		return -EINVAL;
	dir_name = kstrndup(path, name == path ? 1 : name - path, GFP_KERNEL);
	if (!dir_name)
		return -ENOMEM;
	name++;

	rc = kern_path(dir_name, LOOKUP_FOLLOW | LOOKUP_DIRECTORY, &parent);
	kfree(dir_name);
	if (rc) {
		if (rc != -ENOENT)
			trak_log(TRAK_LOG_ERR,
				 "%s(): Failed to lookup parent of %s: rc=%d",
				 __func__, path, rc);
		return rc;
	}
	dir = d_inode(parent.dentry);
	inode_lock_nested(dir, I_MUTEX_PARENT);
	dentry = lookup_one_len(name, parent.dentry, strlen(name));
	if (IS_ERR(dentry)) {
		rc = PTR_ERR(dentry);
		trak_log(TRAK_LOG_ERR, "%s(): Failed to lookup %s: rc=%d",
			 __func__, path, rc);
		goto out;
	}
	rc = d_is_negative(dentry) ? -ENOENT :
	     vfs_unlink(&init_user_ns, dir, dentry, NULL);
	if (rc && rc != -ENOENT)
		trak_log(TRAK_LOG_ERR, "%s(): Failed to unlink %s: rc=%d",
			 __func__, path, rc);
	dput(dentry);
out:
	inode_unlock(dir);
	path_put(&parent);
	return rc;
}

/*
 * The dentry of an absolute path, with a reference the caller drops with
 * dput(); NULL when the path has no inode, an error pointer when it cannot
 * be looked up.
 */
struct dentry *trak_get_file_dentry(const char *path, int follow)
{
	struct dentry *dentry = NULL;
	struct path p;
	int rc;

	if (path[0] != '/') {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Can't lookup %s: must be an absolute path.",
			 __func__, path);
		return ERR_PTR(-EINVAL);
	}
	rc = kern_path(path, follow ? LOOKUP_FOLLOW : 0, &p);
	if (rc)
		return ERR_PTR(rc);
	if (d_really_is_positive(p.dentry)) {
		dentry = dget(p.dentry);
		trak_log(2, "%s(): %s: dentry=(%p, %pd), inode=(%p, %lu)",
			 __func__, path, dentry, dentry, d_inode(dentry),
			 d_inode(dentry)->i_ino);
	}
	path_put(&p);
	return dentry;
}

/*
 * The device of the file system that holds @path, or of the one holding
 * its nearest existing parent below the root; 0 when there is none.
 */
dev_t trak_get_file_devt(const char *path)
{
	struct super_block *sb;
	struct dentry *dentry;
	dev_t devt = 0;
	char *buf, *slash;

	buf = kstrdup(path, GFP_KERNEL);
	if (!buf) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		return 0;
	}
	while (*buf) {
		dentry = trak_get_file_dentry(buf, 0);
		if (!IS_ERR_OR_NULL(dentry)) {
			sb = d_inode(dentry)->i_sb;
			if (sb && sb->s_bdev)
				devt = sb->s_bdev->bd_dev;
			dput(dentry);
			break;
		}
		slash = strrchr(buf, '/');
		if (!slash)
			break;
		*slash = '\0';
	}
	kfree(buf);
	return devt;
}

/*
 * The device number of the block device file @path (symbolic links
 * followed), for commands that name a partition; messages carry @func.
 */
int trak_get_bdev_devt(const char *path, const char *func, dev_t *devt)
{
	struct dentry *dentry = trak_get_file_dentry(path, 1);
	int rc = 0;

	if (IS_ERR(dentry)) {
		trak_log(TRAK_LOG_ERR, "%s(): Unable to lookup %s: rc=%ld", func,
			 path, PTR_ERR(dentry));
		return -ENOENT;
	}
	if (!dentry) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Unable to derive major/minor numbers for %s",
			 func, path);
		return -EINVAL;
	}
	if (!S_ISBLK(d_inode(dentry)->i_mode)) {
		trak_log(TRAK_LOG_ERR, "%s(): %s is not a block device.", func,
			 path);
		rc = -EINVAL;
	} else {
		*devt = d_inode(dentry)->i_rdev;
		trak_log(2, "%s(): Successfully derived HDD major=%d, minor=%d",
			 func, MAJOR(*devt), MINOR(*devt));
	}
	dput(dentry);
	return rc;
}
