// SPDX-License-Identifier: GPL-2.0
/*
 * The /proc/trak/trakN directory of a node: one read-only file per field
 * of its record.  A read finds the record by minor under the registry lock,
 * so it never touches a node that is gone.
 */
#include <linux/fs.h>
#include <linux/kdev_t.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>

#include "block/registry.h"
#include "core/log.h"
#include "core/params.h"
#include "proc.h"

enum trak_proc_field {
	TRAK_PROC_DEV_TYPE, TRAK_PROC_MINOR, TRAK_PROC_UUID, TRAK_PROC_NAME,
	TRAK_PROC_DEV_NAME, TRAK_PROC_STARTED, TRAK_PROC_USE_CNT,
	TRAK_PROC_HDD_MAJOR, TRAK_PROC_HDD_MINOR, TRAK_PROC_HDD_NAME,
	TRAK_PROC_SNAPS, TRAK_PROC_EXTENT_SIZE, TRAK_PROC_EXTENT_CNT,
	TRAK_PROC_DEV_SIZE, TRAK_PROC_BMP_DIR, TRAK_PROC_INCR_BMP_SIZE,
	TRAK_PROC_INCR_BMP_DIRTY, TRAK_PROC_DIFF_BMP_SIZE,
	TRAK_PROC_DIFF_BMP_DIRTY, TRAK_PROC_COWQUEUE_LEN,
	TRAK_PROC_STOP_PENDING, TRAK_PROC_DEL_PENDING, TRAK_PROC_FILTER_MINOR,
	TRAK_PROC_CHUNK_SIZE, TRAK_PROC_COW_BMP_FNAME, TRAK_PROC_COW_DATA_FNAME,
	TRAK_PROC_COW_BMP_SIZE, TRAK_PROC_COW_DATA_SIZE, TRAK_PROC_SNAP_VALID,
};

struct trak_proc_entry {
	const char *name;
	enum trak_proc_field field;
};

/* In the order of creation. */
static const struct trak_proc_entry trak_proc_filter_entries[] = {
	{ "dev_type", TRAK_PROC_DEV_TYPE },
	{ "minor", TRAK_PROC_MINOR },
	{ "uuid", TRAK_PROC_UUID },
	{ "name", TRAK_PROC_NAME },
	{ "dev_name", TRAK_PROC_DEV_NAME },
	{ "started", TRAK_PROC_STARTED },
	{ "use_cnt", TRAK_PROC_USE_CNT },
	{ "hdd_major", TRAK_PROC_HDD_MAJOR },
	{ "hdd_minor", TRAK_PROC_HDD_MINOR },
	{ "hdd_name", TRAK_PROC_HDD_NAME },
	{ "snap_minor", TRAK_PROC_SNAPS },
	{ "extent_size", TRAK_PROC_EXTENT_SIZE },
	{ "extent_cnt", TRAK_PROC_EXTENT_CNT },
	{ "dev_size", TRAK_PROC_DEV_SIZE },
	{ "bmp_dir", TRAK_PROC_BMP_DIR },
	{ "incr_bmp_size", TRAK_PROC_INCR_BMP_SIZE },
	{ "incr_bmp_dirty", TRAK_PROC_INCR_BMP_DIRTY },
	{ "diff_bmp_size", TRAK_PROC_DIFF_BMP_SIZE },
	{ "diff_bmp_dirty", TRAK_PROC_DIFF_BMP_DIRTY },
	{ "cowqueue_len", TRAK_PROC_COWQUEUE_LEN },
	{ "snaps", TRAK_PROC_SNAPS },
	{ }
};

static const struct trak_proc_entry trak_proc_snap_entries[] = {
	{ "dev_type", TRAK_PROC_DEV_TYPE },
	{ "minor", TRAK_PROC_MINOR },
	{ "uuid", TRAK_PROC_UUID },
	{ "name", TRAK_PROC_NAME },
	{ "dev_name", TRAK_PROC_DEV_NAME },
	{ "started", TRAK_PROC_STARTED },
	{ "stop_pending", TRAK_PROC_STOP_PENDING },
	{ "del_pending", TRAK_PROC_DEL_PENDING },
	{ "use_cnt", TRAK_PROC_USE_CNT },
	{ "filter_minor", TRAK_PROC_FILTER_MINOR },
	{ "hdd_major", TRAK_PROC_HDD_MAJOR },
	{ "hdd_minor", TRAK_PROC_HDD_MINOR },
	{ "hdd_name", TRAK_PROC_HDD_NAME },
	{ "chunk_size", TRAK_PROC_CHUNK_SIZE },
	{ "cow_bmp_fname", TRAK_PROC_COW_BMP_FNAME },
	{ "cow_data_fname", TRAK_PROC_COW_DATA_FNAME },
	{ "cow_bmp_size", TRAK_PROC_COW_BMP_SIZE },
	{ "cow_data_size", TRAK_PROC_COW_DATA_SIZE },
	{ "snap_valid", TRAK_PROC_SNAP_VALID },
	{ }
};

/* The filter a node's HDD fields come from: itself, or a snap's filter. */
static const struct trak_filter *trak_proc_hdd_of(const struct trak_blkdev *dev)
{
	if (dev->dev_type == TRAK_DEV_FILTER)
		return &dev->filter;
	if (dev->snap.filter)
		return &dev->snap.filter->filter;
	return NULL;
}

static void trak_proc_show_field(struct seq_file *m,
				 const struct trak_blkdev *dev,
				 enum trak_proc_field field)
{
	const struct trak_filter *hdd = trak_proc_hdd_of(dev);
	const struct trak_filter *f = &dev->filter;
	const struct trak_snap *s = &dev->snap;
	const struct trak_blkdev *snap;

	switch (field) {
	case TRAK_PROC_DEV_TYPE:
		seq_puts(m, dev->dev_type == TRAK_DEV_FILTER ? "filter\n" :
			 "snap\n");
		break;
	case TRAK_PROC_MINOR:
		seq_printf(m, "%d\n", dev->minor);
		break;
	case TRAK_PROC_UUID:
		seq_printf(m, "%s\n", dev->uuid);
		break;
	case TRAK_PROC_NAME:
		seq_printf(m, "%s\n", dev->name);
		break;
	case TRAK_PROC_DEV_NAME:
		seq_printf(m, "%s\n", dev->dev_name);
		break;
	case TRAK_PROC_STARTED:
		seq_printf(m, "%d\n", dev->started);
		break;
	case TRAK_PROC_USE_CNT:
		seq_printf(m, "%d\n", dev->use_cnt);
		break;
	case TRAK_PROC_HDD_MAJOR:
		if (hdd)
			seq_printf(m, "%d\n", MAJOR(hdd->hdd_dev));
		break;
	case TRAK_PROC_HDD_MINOR:
		if (hdd)
			seq_printf(m, "%d\n", MINOR(hdd->hdd_dev));
		break;
	case TRAK_PROC_HDD_NAME:
		if (hdd)
			seq_printf(m, "%s\n", hdd->hdd_name);
		break;
	case TRAK_PROC_SNAPS:
		list_for_each_entry(snap, &f->snaps, snap.snap_link)
			seq_printf(m, "%d\n", snap->minor);
		break;
	case TRAK_PROC_EXTENT_SIZE:
		seq_printf(m, "%d\n", f->extent_size);
		break;
	case TRAK_PROC_EXTENT_CNT:
		seq_printf(m, "%d\n", f->extent_cnt);
		break;
	case TRAK_PROC_DEV_SIZE:
		seq_printf(m, "%lld\n", f->dev_size);
		break;
	case TRAK_PROC_BMP_DIR:
		seq_printf(m, "%s\n", f->bmp_dir);
		break;
	case TRAK_PROC_INCR_BMP_SIZE:
		seq_printf(m, "%d\n", f->incr_bmp_size);
		break;
	case TRAK_PROC_INCR_BMP_DIRTY:
		seq_printf(m, "%d\n", READ_ONCE(f->incr_bmp_dirty));
		break;
	case TRAK_PROC_DIFF_BMP_SIZE:
		seq_printf(m, "%d\n", f->diff_bmp_size);
		break;
	case TRAK_PROC_DIFF_BMP_DIRTY:
		seq_printf(m, "%d\n", READ_ONCE(f->diff_bmp_dirty));
		break;
	case TRAK_PROC_COWQUEUE_LEN:
		seq_printf(m, "%d\n", trak_cowqueue_len(&f->cowqueue));
		break;
	case TRAK_PROC_STOP_PENDING:
		seq_printf(m, "%d\n", s->stop_pending);
		break;
	case TRAK_PROC_DEL_PENDING:
		seq_printf(m, "%d\n", s->del_pending);
		break;
	case TRAK_PROC_FILTER_MINOR:
		seq_printf(m, "%d\n", s->filter_minor);
		break;
	case TRAK_PROC_CHUNK_SIZE:
		seq_printf(m, "%d\n", s->chunk_size);
		break;
	case TRAK_PROC_COW_BMP_FNAME:
		seq_printf(m, "%s\n", s->cow_bmp_fname);
		break;
	case TRAK_PROC_COW_DATA_FNAME:
		seq_printf(m, "%s\n", s->cow_data_fname);
		break;
	case TRAK_PROC_COW_BMP_SIZE:
		seq_printf(m, "%lld\n", (s64)s->cow_bmp_size);
		break;
	case TRAK_PROC_COW_DATA_SIZE:
		seq_printf(m, "%lld\n", s->cow_data_size);
		break;
	case TRAK_PROC_SNAP_VALID:
		seq_printf(m, "%d\n", s->snap_valid);
		break;
	}
}

/* The entry's private data is its descriptor; the minor is in the directory name. */
static int trak_proc_node_show(struct seq_file *m, void *unused)
{
	const struct trak_proc_entry *entry = m->private;
	const char *dir = m->file->f_path.dentry->d_parent->d_name.name;
	struct trak_blkdev *dev;
	int minor;

	if (kstrtoint(dir + strlen("trak"), 10, &minor))
		return 0;
	oxread_lock(&trak_blkdev_rwlock);
	dev = trak_blkdev_find(minor);
	if (dev)
		trak_proc_show_field(m, dev, entry->field);
	oxread_unlock(&trak_blkdev_rwlock);
	trak_log(2, "%s(): %s=%.*s", "trak_read_proc", entry->name,
		 (int)m->count, m->buf);
	return 0;
}

static int trak_proc_node_open(struct inode *inode, struct file *file)
{
	return single_open(file, trak_proc_node_show, pde_data(inode));
}

static const struct proc_ops trak_proc_node_ops = {
	.proc_open	= trak_proc_node_open,
	.proc_read	= seq_read,
	.proc_lseek	= seq_lseek,
	.proc_release	= single_release,
};

int trak_proc_add_device(struct trak_blkdev *dev)
{
	const struct trak_proc_entry *entry;
	struct proc_dir_entry *dir;
	char path[32];

	snprintf(path, sizeof(path), "trak/trak%d", dev->minor);
	trak_log(1, "%s(): Creating /proc/%s entry for trak(%d, %d)", __func__,
		 path, trak_blk_major, dev->minor);
	dir = proc_mkdir(path, NULL);
	if (!dir) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to create /proc/%s directory.",
			 __func__, path);
		return -ENOMEM;
	}

	entry = dev->dev_type == TRAK_DEV_FILTER ? trak_proc_filter_entries :
		trak_proc_snap_entries;
	for (; entry->name; entry++) {
		if (!proc_create_data(entry->name, 0444, dir,
				      &trak_proc_node_ops, (void *)entry)) {
			trak_log(TRAK_LOG_ERR, "%s(): Failed to create /proc/%s/%s.",
				 __func__, path, entry->name);
			return -ENOMEM;
		}
	}
	return 0;
}

void trak_proc_del_device(struct trak_blkdev *dev)
{
	char path[32];

	snprintf(path, sizeof(path), "trak/trak%d", dev->minor);
	trak_log(1, "%s(): Removing /proc entry for trak(%d, %d)", __func__,
		 trak_blk_major, dev->minor);
	trak_log(1, "Removing /proc/%s...", path);
	remove_proc_subtree(path, NULL);
}
