/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_FSMAP_BLKBMP_TEST_H
#define TRAK_FSMAP_BLKBMP_TEST_H

#include "trak_env.h"

/*
 * Checks on the unmounted, opened partition @bdev that its file-system
 * reader and the data-block bitmap agree at every chunk size, portion size
 * and start chunk, leaving the maps it read in /tmp/bmp.<chunk>.<portion>.
 * Returns 0 or the first failure's negative errno.
 */
int trak_blkbmp_test(struct block_device *bdev);

#endif
