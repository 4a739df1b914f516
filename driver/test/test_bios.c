// SPDX-License-Identifier: GPL-2.0
/* Bios for the tests of the snapshot engine. */
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/slab.h>

#include "test_bios.h"

static void trak_test_bio_end_io(struct bio *bio)
{
	struct trak_test_bio_end *end = bio->bi_private;

	end->ended++;
	end->status = bio->bi_status;
}

struct bio *trak_test_bio(struct trak_test_bios *set, int i, sector_t sector,
			  unsigned int sectors, enum req_op op)
{
	struct bio *bio = set->bio[i];

	bio_init(bio, NULL, NULL, 0, op);
	bio->bi_iter.bi_sector = sector;
	bio->bi_iter.bi_size = sectors << SECTOR_SHIFT;
	bio->bi_end_io = trak_test_bio_end_io;
	bio->bi_private = &set->end[i];
	set->end[i].ended = 0;
	set->end[i].status = BLK_STS_OK;
	return bio;
}

int trak_test_with_bios(struct trak_test_bios *set, int (*test)(void))
{
	int i, rc = -ENOMEM;

	for (i = 0; i < TRAK_TEST_BIO_CNT; i++) {
		set->bio[i] = bio_kmalloc(0, GFP_KERNEL);
		if (!set->bio[i])
			goto out;
	}
	rc = test();
out:
	for (i = 0; i < TRAK_TEST_BIO_CNT; i++) {
		kfree(set->bio[i]);
		set->bio[i] = NULL;
	}
	return rc;
}
