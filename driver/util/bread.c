// SPDX-License-Identifier: GPL-2.0
/* Synchronous block reads from a partition. */
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/gfp.h>
#include <linux/mm.h>
#include <linux/string.h>

#include "core/log.h"
#include "util/bread.h"

/* Reads one block into @page; returns 0 or the bio's errno. */
static int trak_bread_block(struct block_device *bdev, struct page *page,
			    u32 size, u64 blk)
{
	struct bio_vec bvec;
	struct bio bio;
	int rc;

	bio_init(&bio, bdev, &bvec, 1, REQ_OP_READ);
	bio.bi_iter.bi_sector = blk * size >> SECTOR_SHIFT;
	bio_add_page(&bio, page, size, 0);
	rc = submit_bio_wait(&bio);
	bio_uninit(&bio);
	return rc;
}

int trak_bread(struct block_device *bdev, void *buf, u32 size, u64 blk,
	       int count)
{
	struct page *page;
	int rc = 0;

	if (size > PAGE_SIZE) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Block size cannot be larger than page size (%d)",
			 __func__, (int)PAGE_SIZE);
		return -EINVAL;
	}
	page = alloc_page(GFP_KERNEL);
	if (!page) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 __func__);
		return -ENOMEM;
	}
	for (; count > 0; count--, blk++, buf += size) {
		if (trak_bread_block(bdev, page, size, blk)) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Failed to read %d-byte block #%lld",
				 __func__, size, (long long)blk);
			rc = -EIO;
			break;
		}
		memcpy(buf, page_address(page), size);
	}
	__free_page(page);
	return rc;
}
