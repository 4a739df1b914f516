// SPDX-License-Identifier: GPL-2.0
/*
 * A snap's COW store: its two files and its in-memory bitmap.  Durability
 * is the caller's order of calls: data written and synced, then the chunk
 * marked and the bitmap synced, and only then may the write that waited
 * for it reach the partition.
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

int trak_cow_store_create(struct trak_cow_store *s, const char *data_fname,
			  u64 data_size, const char *bmp_fname, u32 bmp_size,
			  u64 chunks)
{
	int rc;

	s->data_file = trak_cow_file_create(data_fname, data_size);
	if (!s->data_file)
		return -EIO;
	rc = trak_cowbmp_init(&s->bmp, chunks);
	if (rc)
		goto fail;
	s->bmp_file = trak_cow_file_create(bmp_fname, bmp_size);
	if (s->bmp_file)
		return 0;
	rc = -EIO;
fail:
	trak_cow_store_close(s);
	return rc;
}

int trak_cow_store_open(struct trak_cow_store *s, const char *data_fname,
			const char *bmp_fname, u64 chunks)
{
	int rc;

	s->data_file = trak_fopen(data_fname, TRAK_COW_OPEN_FLAGS,
				  TRAK_COW_FILE_MODE);
	if (!s->data_file)
		return -EIO;
	rc = trak_cowbmp_init(&s->bmp, chunks);
	if (!rc)
		rc = trak_cowbmp_load(&s->bmp, bmp_fname);
	if (!rc && s->bmp.chunks < chunks) {
		/* A chunk the file says nothing of would be read from the partition. */
		trak_log(TRAK_LOG_ERR,
			 "%s(): COW bitmap %s covers %lld chunks instead of %lld.",
			 "trak_ioctl_resume_snap", bmp_fname,
			 (long long)s->bmp.chunks, (long long)chunks);
		rc = -EINVAL;
	}
	if (!rc) {
		s->bmp_file = trak_fopen(bmp_fname, TRAK_COW_OPEN_FLAGS,
					 TRAK_COW_FILE_MODE);
		if (s->bmp_file)
			return 0;
		rc = -EIO;
	}
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

int trak_cow_store_mark(struct trak_cow_store *s, u32 chunk, gfp_t gfp)
{
	return trak_cowbmp_set_bit(&s->bmp, chunk, gfp, s->bmp_file);
}

int trak_cow_store_sync_bitmap(struct trak_cow_store *s)
{
	return s->bmp_file ? trak_fdatasync(s->bmp_file) : 0;
}

void trak_cow_store_discard(const char *data_fname)
{
	trak_ftruncate(data_fname);
}
