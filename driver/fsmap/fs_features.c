// SPDX-License-Identifier: GPL-2.0
/* Refusing, by name, the feature bits a reader cannot read. */
#include "fs_features.h"

/* Longest list of feature names a refusal names, with its separators. */
#define TRAK_FEATURE_LIST_SIZE	160

/* Appends the names of @set's bits to @list; returns the new length. */
static int trak_feature_list(char *list, int len,
			     const struct trak_feature_set *set)
{
	const struct trak_feature_name *f;
	u32 features = set->unreadable;

	for (f = set->names; f->name; f++) {
		if (!(features & f->mask))
			continue;
		len += scnprintf(list + len, TRAK_FEATURE_LIST_SIZE - len,
				 "%s%s", len ? ", " : "", f->name);
		features &= ~f->mask;
	}
	if (features)
		len += scnprintf(list + len, TRAK_FEATURE_LIST_SIZE - len,
				 "%s%s 0x%x", len ? ", " : "", set->kind,
				 features);
	return len;
}

int trak_refuse_features(struct block_device *bdev, const char *func,
			 const char *fs, const struct trak_feature_set *sets,
			 int count)
{
	char list[TRAK_FEATURE_LIST_SIZE];
	int i, len = 0;

	for (i = 0; i < count; i++)
		len = trak_feature_list(list, len, &sets[i]);
	if (!len)
		return 0;
	trak_log(TRAK_LOG_ERR,
		 "%s(): Sorry, we don't support %s with %s on hdd(%d, %d).",
		 func, fs, list, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
	return -EINVAL;
}
