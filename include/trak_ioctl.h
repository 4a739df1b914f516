/* SPDX-License-Identifier: GPL-2.0 WITH Linux-syscall-note */
/*
 * trak control interface: the ioctl commands of the control character
 * device and the records they carry.
 *
 * This header is shared by the kernel module and by user space (C and
 * C++).  Every record has a fixed layout with explicit padding, so that
 * 32-bit and 64-bit callers see the same bytes; the layout is checked at
 * compile time at the end of this file.
 */
#ifndef _UAPI_TRAK_IOCTL_H
#define _UAPI_TRAK_IOCTL_H

#include <linux/ioctl.h>
#include <linux/types.h>

#define TRAK_IOCTL_TYPE		'C'

#define TRAK_PATH_LEN		1024	/* paths, NUL-terminated */
#define TRAK_NAME_LEN		128	/* node names, NUL-terminated */
#define TRAK_UUID_LEN		39	/* "{8-4-4-4-12}" and NUL */
#define TRAK_MAX_LISTED		256	/* minors in a list or a snap set */

/* Node types (dev_type). */
#define TRAK_DEV_FILTER		1
#define TRAK_DEV_SNAP		2

/* Change bitmap kinds. */
#define TRAK_BMP_DIFF		0
#define TRAK_BMP_INCR		1

/* TRAK_ADD_FILTER_NODE: layer a filter node over a partition. */
struct trak_add_filter_args {
	char hdd_name[TRAK_PATH_LEN];	/* in: device file of the partition */
	__s32 minor;			/* in: wanted minor, < 0 any; out */
	__u32 extent_size;		/* in: tracking granule, bytes */
	char bmp_dir[TRAK_PATH_LEN];	/* in: directory of bitmap files */
	char uuid[TRAK_UUID_LEN];	/* in/out: empty = generate */
	char name[TRAK_NAME_LEN + 1];	/* in/out: empty = "trak%d" */
};

/* TRAK_ADD_SNAP_NODE: attach a snap node to a filter node. */
struct trak_add_snap_args {
	__u32 filter_minor;
	__s32 snap_minor;		/* in: < 0 any; out: chosen */
	__u32 chunk_size;		/* in/out: may be raised */
	char cow_bmp_fname[TRAK_PATH_LEN];
	char cow_data_fname[TRAK_PATH_LEN];
	char uuid[TRAK_UUID_LEN];	/* in/out: empty = generate */
	char name[TRAK_NAME_LEN];	/* in/out: empty = "trak%d" */
	__u8 pad;
};

/* TRAK_DEL_NODE, TRAK_START_NODE, TRAK_STOP_NODE. */
struct trak_minor_args {
	__s32 minor;
};

/* TRAK_GET_DEVICE_LIST: minors of all nodes of one type. */
struct trak_device_list_args {
	__u32 dev_type;			/* in: TRAK_DEV_FILTER or _SNAP */
	__u32 count;			/* out */
	__s32 minors[TRAK_MAX_LISTED];	/* out: first count, ascending */
};

/* TRAK_GET_INFO: one node's state. */
struct trak_info_args {
	__s32 minor;			/* in */
	__u32 dev_type;
	__aligned_u64 dev_size;
	__s32 started;
	__s32 use_cnt;
	char uuid[TRAK_UUID_LEN];
	char name[TRAK_NAME_LEN];
	/* filter nodes */
	char hdd_name[TRAK_PATH_LEN];
	__u8 pad1;
	__u32 extent_size;
	__u32 extent_cnt;
	__s32 snap_minors[TRAK_MAX_LISTED];
	__u32 snap_cnt;
	__u32 incr_bmp_size;
	__u32 diff_bmp_size;
	char incr_bmp_fname[TRAK_PATH_LEN];
	char diff_bmp_fname[TRAK_PATH_LEN];
	__u32 incr_bmp_clear;
	__u32 diff_bmp_clear;
	__u32 incr_bmp_full;
	__u32 diff_bmp_full;
	/* snap nodes */
	__u32 snap_valid;
	__u32 stop_pending;
	__u32 del_pending;
	__u32 chunk_size;
	__u32 cow_chunks;
	__u32 cow_bmp_size;
	__u32 pad2;
	__aligned_u64 cow_data_size;
	char cow_bmp_fname[TRAK_PATH_LEN];
	char cow_data_fname[TRAK_PATH_LEN];
};

/* TRAK_LOAD_BMP, TRAK_SAVE_BMP, TRAK_CLR_BMP. */
struct trak_bmp_args {
	__u32 minor;
	__u32 kind;			/* TRAK_BMP_INCR or TRAK_BMP_DIFF */
};

/* TRAK_SET_BMP, TRAK_MERGE_BMP, TRAK_GET_BMP, TRAK_GET_AND_CLR_BMP. */
struct trak_bmp_data_args {
	__u32 minor;
	__u32 kind;
	__s32 size;			/* bytes at data */
	__u32 pad;
	__aligned_u64 data;		/* user address of the bitmap */
};

/* TRAK_GET_DATABLOCK_BMP: which extents of a snap hold file data. */
struct trak_datablock_bmp_args {
	__u32 minor;
	__u32 extent_size;		/* power of two >= chunk size */
	__s32 bmp_size;			/* in: buffer bytes; out: written */
	__u32 pad;
	__aligned_u64 bmp_data;		/* user address of the buffer */
};

/* TRAK_TEST_DATABLOCK: self-test of the data-block map. */
struct trak_test_datablock_args {
	char hdd_name[TRAK_PATH_LEN];
};

/* TRAK_RESUME_SNAP: bring a snap node back into service. */
struct trak_resume_snap_args {
	__u32 snap_minor;
	__u32 snap_valid;
	__u32 stop_pending;
	__u32 del_pending;
};

#define TRAK_ADD_FILTER_NODE	_IOWR('C', 1, struct trak_add_filter_args)
#define TRAK_ADD_SNAP_NODE	_IOWR('C', 2, struct trak_add_snap_args)
#define TRAK_DEL_NODE		_IOW('C', 3, struct trak_minor_args)
#define TRAK_START_NODE		_IOW('C', 4, struct trak_minor_args)
#define TRAK_STOP_NODE		_IOW('C', 5, struct trak_minor_args)
#define TRAK_GET_DEVICE_LIST	_IOWR('C', 6, struct trak_device_list_args)
#define TRAK_GET_INFO		_IOWR('C', 7, struct trak_info_args)
#define TRAK_LOAD_BMP		_IOW('C', 8, struct trak_bmp_args)
#define TRAK_SAVE_BMP		_IOW('C', 9, struct trak_bmp_args)
#define TRAK_CLR_BMP		_IOW('C', 10, struct trak_bmp_args)
#define TRAK_SET_BMP		_IOW('C', 11, struct trak_bmp_data_args)
#define TRAK_MERGE_BMP		_IOW('C', 12, struct trak_bmp_data_args)
#define TRAK_GET_BMP		_IOWR('C', 13, struct trak_bmp_data_args)
#define TRAK_GET_AND_CLR_BMP	_IOWR('C', 14, struct trak_bmp_data_args)
#define TRAK_GET_DATABLOCK_BMP	_IOWR('C', 15, struct trak_datablock_bmp_args)
#define TRAK_TEST_DATABLOCK	_IOW('C', 16, struct trak_test_datablock_args)
#define TRAK_RESUME_SNAP	_IOW('C', 17, struct trak_resume_snap_args)

/*
 * Compile-time layout checks.  The records are an ABI: a change that
 * moves a field breaks every agent in the field, so it must not build.
 */
#ifdef __cplusplus
#define TRAK_ABI_CHECK(expr)	static_assert(expr, #expr)
#else
#define TRAK_ABI_CHECK(expr)	_Static_assert(expr, #expr)
#endif
#define TRAK_ABI_AT(type, field, off) \
	TRAK_ABI_CHECK(__builtin_offsetof(struct type, field) == (off))

TRAK_ABI_CHECK(sizeof(struct trak_add_filter_args) == 2224);
TRAK_ABI_AT(trak_add_filter_args, hdd_name, 0);
TRAK_ABI_AT(trak_add_filter_args, minor, 1024);
TRAK_ABI_AT(trak_add_filter_args, extent_size, 1028);
TRAK_ABI_AT(trak_add_filter_args, bmp_dir, 1032);
TRAK_ABI_AT(trak_add_filter_args, uuid, 2056);
TRAK_ABI_AT(trak_add_filter_args, name, 2095);

TRAK_ABI_CHECK(sizeof(struct trak_add_snap_args) == 2228);
TRAK_ABI_AT(trak_add_snap_args, filter_minor, 0);
TRAK_ABI_AT(trak_add_snap_args, snap_minor, 4);
TRAK_ABI_AT(trak_add_snap_args, chunk_size, 8);
TRAK_ABI_AT(trak_add_snap_args, cow_bmp_fname, 12);
TRAK_ABI_AT(trak_add_snap_args, cow_data_fname, 1036);
TRAK_ABI_AT(trak_add_snap_args, uuid, 2060);
TRAK_ABI_AT(trak_add_snap_args, name, 2099);
TRAK_ABI_AT(trak_add_snap_args, pad, 2227);

TRAK_ABI_CHECK(sizeof(struct trak_minor_args) == 4);

TRAK_ABI_CHECK(sizeof(struct trak_device_list_args) == 1032);
TRAK_ABI_AT(trak_device_list_args, dev_type, 0);
TRAK_ABI_AT(trak_device_list_args, count, 4);
TRAK_ABI_AT(trak_device_list_args, minors, 8);

TRAK_ABI_CHECK(sizeof(struct trak_info_args) == 6408);
TRAK_ABI_AT(trak_info_args, minor, 0);
TRAK_ABI_AT(trak_info_args, dev_type, 4);
TRAK_ABI_AT(trak_info_args, dev_size, 8);
TRAK_ABI_AT(trak_info_args, started, 16);
TRAK_ABI_AT(trak_info_args, use_cnt, 20);
TRAK_ABI_AT(trak_info_args, uuid, 24);
TRAK_ABI_AT(trak_info_args, name, 63);
TRAK_ABI_AT(trak_info_args, hdd_name, 191);
TRAK_ABI_AT(trak_info_args, pad1, 1215);
TRAK_ABI_AT(trak_info_args, extent_size, 1216);
TRAK_ABI_AT(trak_info_args, extent_cnt, 1220);
TRAK_ABI_AT(trak_info_args, snap_minors, 1224);
TRAK_ABI_AT(trak_info_args, snap_cnt, 2248);
TRAK_ABI_AT(trak_info_args, incr_bmp_size, 2252);
TRAK_ABI_AT(trak_info_args, diff_bmp_size, 2256);
TRAK_ABI_AT(trak_info_args, incr_bmp_fname, 2260);
TRAK_ABI_AT(trak_info_args, diff_bmp_fname, 3284);
TRAK_ABI_AT(trak_info_args, incr_bmp_clear, 4308);
TRAK_ABI_AT(trak_info_args, diff_bmp_clear, 4312);
TRAK_ABI_AT(trak_info_args, incr_bmp_full, 4316);
TRAK_ABI_AT(trak_info_args, diff_bmp_full, 4320);
TRAK_ABI_AT(trak_info_args, snap_valid, 4324);
TRAK_ABI_AT(trak_info_args, stop_pending, 4328);
TRAK_ABI_AT(trak_info_args, del_pending, 4332);
TRAK_ABI_AT(trak_info_args, chunk_size, 4336);
TRAK_ABI_AT(trak_info_args, cow_chunks, 4340);
TRAK_ABI_AT(trak_info_args, cow_bmp_size, 4344);
TRAK_ABI_AT(trak_info_args, pad2, 4348);
TRAK_ABI_AT(trak_info_args, cow_data_size, 4352);
TRAK_ABI_AT(trak_info_args, cow_bmp_fname, 4360);
TRAK_ABI_AT(trak_info_args, cow_data_fname, 5384);

TRAK_ABI_CHECK(sizeof(struct trak_bmp_args) == 8);
TRAK_ABI_AT(trak_bmp_args, minor, 0);
TRAK_ABI_AT(trak_bmp_args, kind, 4);

TRAK_ABI_CHECK(sizeof(struct trak_bmp_data_args) == 24);
TRAK_ABI_AT(trak_bmp_data_args, minor, 0);
TRAK_ABI_AT(trak_bmp_data_args, kind, 4);
TRAK_ABI_AT(trak_bmp_data_args, size, 8);
TRAK_ABI_AT(trak_bmp_data_args, pad, 12);
TRAK_ABI_AT(trak_bmp_data_args, data, 16);

TRAK_ABI_CHECK(sizeof(struct trak_datablock_bmp_args) == 24);
TRAK_ABI_AT(trak_datablock_bmp_args, minor, 0);
TRAK_ABI_AT(trak_datablock_bmp_args, extent_size, 4);
TRAK_ABI_AT(trak_datablock_bmp_args, bmp_size, 8);
TRAK_ABI_AT(trak_datablock_bmp_args, bmp_data, 16);

TRAK_ABI_CHECK(sizeof(struct trak_test_datablock_args) == 1024);

TRAK_ABI_CHECK(sizeof(struct trak_resume_snap_args) == 16);
TRAK_ABI_AT(trak_resume_snap_args, snap_minor, 0);
TRAK_ABI_AT(trak_resume_snap_args, snap_valid, 4);
TRAK_ABI_AT(trak_resume_snap_args, stop_pending, 8);
TRAK_ABI_AT(trak_resume_snap_args, del_pending, 12);

TRAK_ABI_CHECK(TRAK_ADD_FILTER_NODE == 0xC8B04301u);
TRAK_ABI_CHECK(TRAK_ADD_SNAP_NODE == 0xC8B44302u);
TRAK_ABI_CHECK(TRAK_DEL_NODE == 0x40044303u);
TRAK_ABI_CHECK(TRAK_START_NODE == 0x40044304u);
TRAK_ABI_CHECK(TRAK_STOP_NODE == 0x40044305u);
TRAK_ABI_CHECK(TRAK_GET_DEVICE_LIST == 0xC4084306u);
TRAK_ABI_CHECK(TRAK_GET_INFO == 0xD9084307u);
TRAK_ABI_CHECK(TRAK_LOAD_BMP == 0x40084308u);
TRAK_ABI_CHECK(TRAK_SAVE_BMP == 0x40084309u);
TRAK_ABI_CHECK(TRAK_CLR_BMP == 0x4008430Au);
TRAK_ABI_CHECK(TRAK_SET_BMP == 0x4018430Bu);
TRAK_ABI_CHECK(TRAK_MERGE_BMP == 0x4018430Cu);
TRAK_ABI_CHECK(TRAK_GET_BMP == 0xC018430Du);
TRAK_ABI_CHECK(TRAK_GET_AND_CLR_BMP == 0xC018430Eu);
TRAK_ABI_CHECK(TRAK_GET_DATABLOCK_BMP == 0xC018430Fu);
TRAK_ABI_CHECK(TRAK_TEST_DATABLOCK == 0x44004310u);
TRAK_ABI_CHECK(TRAK_RESUME_SNAP == 0x40104311u);

#endif /* _UAPI_TRAK_IOCTL_H */
