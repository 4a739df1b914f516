/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Bios for the tests of the snapshot engine: made without a device, ended
 * by hand or by the code under test, and remembering how they ended.
 */
#ifndef TRAK_TEST_BIOS_H
#define TRAK_TEST_BIOS_H

#include <linux/blk_types.h>

#define TRAK_TEST_BIO_CNT	6

struct trak_test_bio_end {
	int ended;		/* how many times it was ended */
	blk_status_t status;	/* with what, the last time */
};

struct trak_test_bios {
	struct bio *bio[TRAK_TEST_BIO_CNT];
	struct trak_test_bio_end end[TRAK_TEST_BIO_CNT];
};

/* Bio @i of @set, fresh: @sectors sectors from @sector. */
struct bio *trak_test_bio(struct trak_test_bios *set, int i, sector_t sector,
			  unsigned int sectors, enum req_op op);
/* Runs @test with the bios of @set made for it: 0 when it passed. */
int trak_test_with_bios(struct trak_test_bios *set, int (*test)(void));

#endif
