// SPDX-License-Identifier: GPL-2.0
/* Unit tests of the registry's choice of minors and of node uuids. */
#include <linux/ctype.h>
#include <linux/string.h>

#include "block/registry.h"
#include "core/params.h"
#include "trak_test.h"

/* With a single slot: too big, first free, used up, taken. */
static int trak_test_registry_one_slot(void)
{
	static struct trak_blkdev occupant;
	int saved_max = trak_max_blk_minor;
	int minor, rc;

	trak_max_blk_minor = 0;
	rc = trak_registry_create();
	trak_max_blk_minor = saved_max;
	if (!TRAK_CHECK(!rc))
		return -EINVAL;
	trak_max_blk_minor = 0;

	minor = 1;
	if (!TRAK_CHECK(trak_blkdev_choose_minor(&minor, __func__) == -EINVAL))
		return -EINVAL;
	minor = -1;
	if (!TRAK_CHECK(trak_blkdev_choose_minor(&minor, __func__) == 0 && minor == 0))
		return -EINVAL;

	trak_blkdev_arr[0] = &occupant;
	if (!TRAK_CHECK(trak_blkdev_find(0) == &occupant))
		return -EINVAL;
	if (!TRAK_CHECK(!trak_blkdev_find(1) && !trak_blkdev_find(-1)))
		return -EINVAL;
	minor = -5;
	if (!TRAK_CHECK(trak_blkdev_choose_minor(&minor, __func__) == -ENOSPC))
		return -EINVAL;
	if (!TRAK_CHECK(minor == -5))
		return -EINVAL;
	minor = 0;
	if (!TRAK_CHECK(trak_blkdev_choose_minor(&minor, __func__) == -EINVAL))
		return -EINVAL;

	trak_max_blk_minor = saved_max;
	trak_registry_destroy();
	return 0;
}

/* Any negative minor means "the lowest free one". */
static int trak_test_registry_lowest_free(void)
{
	static struct trak_blkdev occupant;
	int minor;

	if (!TRAK_CHECK(!trak_registry_create()))
		return -EINVAL;
	trak_blkdev_arr[0] = &occupant;
	trak_blkdev_arr[1] = &occupant;
	trak_blkdev_arr[3] = &occupant;
	minor = -5;
	if (!TRAK_CHECK(trak_blkdev_choose_minor(&minor, __func__) == 0 && minor == 2))
		return -EINVAL;
	minor = trak_max_blk_minor;
	if (!TRAK_CHECK(trak_blkdev_choose_minor(&minor, __func__) == 0 &&
			    minor == trak_max_blk_minor))
		return -EINVAL;
	trak_registry_destroy();
	return 0;
}

static bool trak_test_uuid_well_formed(const char *uuid)
{
	int i;

	if (strlen(uuid) != 38 || uuid[0] != '{' || uuid[37] != '}')
		return false;
	for (i = 1; i < 37; i++) {
		bool hyphen = i == 9 || i == 14 || i == 19 || i == 24;

		if (hyphen ? uuid[i] != '-' :
		    !(isdigit(uuid[i]) || (uuid[i] >= 'a' && uuid[i] <= 'f')))
			return false;
	}
	return true;
}

static int trak_test_uuid_generate(void)
{
	char a[TRAK_UUID_LEN], b[TRAK_UUID_LEN];

	trak_uuid_generate(a);
	trak_uuid_generate(b);
	if (!TRAK_CHECK(trak_test_uuid_well_formed(a)))
		return -EINVAL;
	if (!TRAK_CHECK(trak_test_uuid_well_formed(b)))
		return -EINVAL;
	if (!TRAK_CHECK(strcmp(a, b)))
		return -EINVAL;
	return 0;
}

const struct trak_test_case trak_registry_tests[] = {
	{ "registry_one_slot", trak_test_registry_one_slot },
	{ "registry_lowest_free", trak_test_registry_lowest_free },
	{ "uuid_generate", trak_test_uuid_generate },
	{ }
};
