// SPDX-License-Identifier: GPL-2.0
/*
 * A snap's COW store: its two files and its in-memory bitmap.  Durability
 * is the caller's order of calls: data written and synced, then the chunks
 * marked ahead in the bitmap file and that synced, then published in
 * memory; only then may a write to them reach the partition.
 */
#include "cow_store.h"

#define TRAK_COW_CREATE_FLAGS	(O_RDWR | O_CREAT | O_TRUNC | O_LARGEFILE)
#define TRAK_COW_OPEN_FLAGS	(O_RDWR | O_LARGEFILE)
#define TRAK_COW_FILE_MODE	0600

/* Creates @fname with @size bytes at once: a zero byte at the end. */
static struct trak_file *trak_cow_file_create(const char *fname, u64 size)
{
	struct trak_file *file;
	const u8 zero = 0;

	file = trak_fopen(fname, TRAK_COW_CREATE_FLAGS, TRAK_COW_FILE_MODE);
	if (file && trak_fwrite(file, size - 1, &zero, 1) != 1) {
		trak_fclose(file);
		file = NULL;
	}
	return file;
}

int trak_cow_store_create(struct trak_cow_store *s,
			  const struct trak_cow_store_geometry *g)
{
	int rc;

	s->data_file = trak_cow_file_create(g->data_fname, g->data_size);
	if (!s->data_file)
		return -EIO;
	rc = trak_cowbmp_init(&s->bmp, g->chunks);
	if (rc)
		goto fail;
	s->bmp_file = trak_cow_file_create(g->bmp_fname, g->bmp_size);
	if (s->bmp_file)
		return 0;
	rc = -EIO;
fail:
	trak_cow_store_close(s);
	return rc;
}

/*
 * A store that backs a valid snap has the sizes its start gave the files:
 * an invalidated one has lost both, and a short data file would read back
 * holes as preserved chunks.
 */
static int trak_cow_store_check_sizes(struct trak_cow_store *s,
				      const char *data_fname, u64 data_size,
				      const char *bmp_fname, u32 bmp_size)
{
	loff_t data = trak_fsize(s->data_file);
	loff_t bmp = trak_fsize(s->bmp_file);

	if (bmp != bmp_size) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): COW bitmap file %s holds %lld bytes instead of %u: it cannot back a valid snap.",
			 "trak_ioctl_resume_snap", bmp_fname, (long long)bmp,
			 bmp_size);
		return -EINVAL;
	}
	if (data < 0 || (u64)data != data_size) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): COW data file %s holds %lld bytes instead of %llu: it cannot back a valid snap.",
			 "trak_ioctl_resume_snap", data_fname, (long long)data,
			 (unsigned long long)data_size);
		return -EINVAL;
	}
	return 0;
}

int trak_cow_store_open(struct trak_cow_store *s,
			const struct trak_cow_store_geometry *g, bool valid)
{
	int rc = -EIO;

	s->data_file = trak_fopen(g->data_fname, TRAK_COW_OPEN_FLAGS,
				  TRAK_COW_FILE_MODE);
	if (!s->data_file)
		goto fail;
	s->bmp_file = trak_fopen(g->bmp_fname, TRAK_COW_OPEN_FLAGS,
				 TRAK_COW_FILE_MODE);
	if (!s->bmp_file)
		goto fail;
	rc = trak_cowbmp_init(&s->bmp, g->chunks);
	/* An invalid snap serves nothing: what its bitmap said is moot. */
	if (rc || !valid)
		goto out;
	rc = trak_cow_store_check_sizes(s, g->data_fname, g->data_size,
					g->bmp_fname, g->bmp_size);
	if (!rc)
		rc = trak_cowbmp_load(&s->bmp, g->bmp_fname);
out:
	if (!rc)
		return 0;
fail:
	trak_cow_store_close(s);
	return rc;
}

void trak_cow_store_close(struct trak_cow_store *s)
{
	if (s->data_file)
		trak_fclose(s->data_file);
	if (s->bmp_file)
		trak_fclose(s->bmp_file);
	s->data_file = NULL;
	s->bmp_file = NULL;
	trak_cowbmp_destroy(&s->bmp);
}

int trak_cow_store_write(struct trak_cow_store *s, loff_t off,
			 const void *buf, int len)
{
	return trak_fwrite(s->data_file, off, buf, len) == len ? 0 : -EIO;
}

int trak_cow_store_read(struct trak_cow_store *s, loff_t off, void *buf,
			int len)
{
	return trak_fread(s->data_file, off, buf, len) == len ? 0 : -EIO;
}

int trak_cow_store_sync_data(struct trak_cow_store *s)
{
	return s->data_file ? trak_fdatasync(s->data_file) : 0;
}

int trak_cow_store_mark_ahead(struct trak_cow_store *s, const u32 *chunks,
			      u32 cnt, gfp_t gfp)
{
	return trak_cowbmp_write_ahead(&s->bmp, chunks, cnt, gfp, s->bmp_file);
}

int trak_cow_store_sync_bitmap(struct trak_cow_store *s)
{
	return s->bmp_file ? trak_fdatasync(s->bmp_file) : 0;
}

void trak_cow_store_publish(struct trak_cow_store *s, const u32 *chunks,
			    u32 cnt)
{
	trak_cowbmp_publish(&s->bmp, chunks, cnt);
}

/*
 * The bitmap file goes first: once it is empty no resume takes the store
 * for a valid one, whatever becomes of the data file.
 */
int trak_cow_store_discard(struct trak_cow_store *s)
{
	int rc = trak_ftruncate(s->bmp_file);

	return trak_ftruncate(s->data_file) ?: rc;
}
