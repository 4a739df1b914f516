/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_UTIL_FILE_H
#define TRAK_UTIL_FILE_H

#include <linux/types.h>

/*
 * A file opened from inside the kernel.  All I/O is positional; the handle
 * remembers its path for messages.  Process context only.
 */
struct trak_file {
	char *name;
	struct file *filp;
};

struct trak_file *trak_fopen(const char *path, int flags, int mode);
int trak_fread(struct trak_file *file, loff_t off, void *buf, int count);
int trak_fwrite(struct trak_file *file, loff_t off, const void *buf,
		int count);
int trak_fclose(struct trak_file *file);
int trak_ftruncate(struct trak_file *file);
/* Makes the file's data, and what is needed to read it back, durable. */
int trak_fdatasync(struct trak_file *file);
loff_t trak_fsize(struct trak_file *file);

#endif
