/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Feature bits that a reader cannot read: refusing a file system that has
 * any of them, naming them, so that its map stays invalid instead of
 * wrong.
 */
#ifndef TRAK_FSMAP_FS_FEATURES_H
#define TRAK_FSMAP_FS_FEATURES_H

#include "trak_env.h"

struct trak_feature_name {
	u32 mask;
	const char *name;
};

/* One set of feature bits that a reader cannot read, with their names. */
struct trak_feature_set {
	u32 unreadable;				/* the bits found */
	const struct trak_feature_name *names;	/* ends with a NULL name */
	const char *kind;			/* what unnamed bits are */
};

/*
 * Returns 0 when no set has a bit, else logs under @func "Sorry, we don't
 * support @fs with <names> on hdd(M, m)." and returns -EINVAL.  Bits
 * without a name are written as "<kind> 0x<bits>".
 */
int trak_refuse_features(struct block_device *bdev, const char *func,
			 const char *fs, const struct trak_feature_set *sets,
			 int count);

#endif
