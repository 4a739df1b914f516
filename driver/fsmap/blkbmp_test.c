// SPDX-License-Identifier: GPL-2.0
/* Self-test of a file-system reader and the data-block bitmap. */
#include "blkbmp_test.h"
#include "blkbmp.h"
#include "reader.h"

#define TEST_MAX_PORTION_CHUNK	65536
#define TEST_MAX_CHUNK		0x200000
#define TEST_MIN_PORTION	128
#define TEST_DUMP_NAME_LEN	64

/* Steps after the reader phase log under the test's own name. */
static const char test_name[] = "trak_blkbmp_test";

struct blkbmp_test {
	struct block_device *bdev;
	const struct trak_blkbmp_reader *reader;
	void *ctx;
	u64 size;	/* partition bytes */
	u32 bs;		/* file-system block size */
	u32 blocks;	/* ceil(size / bs) */
	u8 *block_map;	/* the reader's map at chunk size bs */
	u8 *map;	/* working map */
	struct trak_blkbmp bmp;
};

/* Whether any of blocks [first, first + count) is set in the block map. */
static bool test_blocks_used(const struct blkbmp_test *t, u64 first,
			     u32 count)
{
	u64 b, end = min_t(u64, first + count, t->blocks);

	for (b = first; b < end; b++)
		if (trak_chunk_test(t->block_map, b))
			return true;
	return false;
}

static void test_dump(const u8 *map, u32 bytes, const char *name)
{
	struct trak_file *file;

	file = trak_fopen(name, O_RDWR | O_CREAT | O_TRUNC | O_LARGEFILE,
			  0666);
	if (!file)
		return;
	trak_fwrite(file, 0, map, bytes);
	trak_fclose(file);
}

/* Reads @chunks chunks of @cs bytes into t->map, @portion bytes a call. */
static int test_read_portions(struct blkbmp_test *t, u32 cs, u32 chunks,
			      u32 portion)
{
	u32 first, count;
	int rc;

	for (first = 0; first < chunks; first += count) {
		count = min_t(u32, portion * 8, chunks - first);
		rc = t->reader->read(t->ctx, first, cs,
				     (u64 *)(t->map + first / 8), count);
		if (rc) {
			trak_log(TRAK_LOG_ERR,
				 "Failed to read %d bits starting from chunk %d",
				 count, first);
			return rc;
		}
	}
	return 0;
}

/* Checks t->map, at @bpc blocks per chunk, against the block map. */
static int test_compare_chunks(const struct blkbmp_test *t, u32 bpc,
			       u32 chunks)
{
	u32 c;
	bool used;

	for (c = 0; c < chunks; c++) {
		used = test_blocks_used(t, (u64)c * bpc, bpc);
		if (trak_chunk_test(t->map, c) && !used) {
			trak_log(TRAK_LOG_ERR,
				 "Oops. Bit %d of chunk bitmap is set, but all bits in the block bitmap are clear.",
				 c);
			return -EIO;
		}
		if (!trak_chunk_test(t->map, c) && used) {
			trak_log(TRAK_LOG_ERR,
				 "Oops. Bit %d of chunk bitmap is clear, but some bits in the block bitmap are set.",
				 c);
			return -EIO;
		}
	}
	return 0;
}

static int test_chunk_size(struct blkbmp_test *t, u32 cs)
{
	const u32 chunks = DIV_ROUND_UP(t->size, cs);
	const u32 bytes = DIV_ROUND_UP(chunks, 8);
	char name[TEST_DUMP_NAME_LEN];
	u32 portion;
	int rc = 0;

	t->map = vmalloc(bytes);
	if (!t->map)
		return -ENOMEM;
	for (portion = bytes; portion >= TEST_MIN_PORTION; portion /= 2) {
		snprintf(name, sizeof(name), "/tmp/bmp.%d.%d", cs, portion);
		trak_log(3, "Testing chunk_size=%d, chunks=%d (portion_size=%d): %s",
			 cs, chunks, portion, name);
		rc = test_read_portions(t, cs, chunks, portion);
		if (rc)
			break;
		test_dump(t->map, bytes, name);
		if (!t->block_map) {
			t->block_map = t->map;
			t->map = vmalloc(bytes);
			if (!t->map) {
				rc = -ENOMEM;
				break;
			}
			continue;
		}
		rc = test_compare_chunks(t, cs / t->bs, chunks);
		if (rc)
			break;
	}
	vfree(t->map);
	t->map = NULL;
	return rc;
}

/* The reader against itself, at chunk sizes up to 64 KiB. */
static int trak_blkbmp_test_reader(struct blkbmp_test *t)
{
	u32 cs;
	int rc;

	trak_log(2, "%s(): Testing bitmap reader for hdd(%d, %d)", __func__,
		 MAJOR(t->bdev->bd_dev), MINOR(t->bdev->bd_dev));
	for (cs = t->bs; cs <= TEST_MAX_PORTION_CHUNK; cs *= 2) {
		rc = test_chunk_size(t, cs);
		if (rc == -ENOMEM)
			trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
				 __func__);
		if (rc)
			return rc;
	}
	return 0;
}

/* The reader's block map against the data-block bitmap's chunk test. */
static int test_against_blkbmp(struct blkbmp_test *t)
{
	u32 b;
	int rc;

	trak_log(2, "%s(): Reading the entire datablock bitmap with chunk_size=block_size=%dB using the reader directly",
		 test_name, t->bs);
	rc = t->reader->read(t->ctx, 0, t->bs, (u64 *)t->block_map,
			     t->blocks);
	if (rc)
		return rc;
	trak_log(2, "%s(): Reading the entire datablock bitmap with chunk_size=block_size=%dB using blkbmp API",
		 test_name, t->bs);
	trak_blkbmp_read(&t->bmp, t->bdev, t->bs);
	trak_log(2, "   Comparing the results...");
	for (b = 0; b < t->blocks; b++) {
		if (trak_blkbmp_has_data(&t->bmp, b) !=
		    trak_chunk_test(t->block_map, b)) {
			trak_log(TRAK_LOG_ERR,
				 "%s(): Bit %d is misrepresented by blkbmp: %d instead of %d",
				 test_name, b, trak_blkbmp_has_data(&t->bmp, b),
				 trak_chunk_test(t->block_map, b));
			return -EIO;
		}
	}
	return 0;
}

/* Reading from a pseudo-random start chunk in the first half. */
static int test_start_chunks(struct blkbmp_test *t)
{
	u32 cs, bpc, chunks, start, i;
	bool expected;
	int rc;

	for (cs = t->bs; cs <= TEST_MAX_CHUNK; cs *= 2) {
		bpc = cs / t->bs;
		chunks = DIV_ROUND_UP(t->blocks, bpc);
		start = chunks / 2 ? jiffies % (chunks / 2) : 0;
		trak_log(3, "%s(): Testing bitmap reading for start chunk=%d, chunk size=%d, chunks=%d",
			 test_name, start, cs, chunks - start);
		rc = t->reader->read(t->ctx, start, cs, (u64 *)t->map,
				     chunks - start);
		if (rc)
			return rc;
		for (i = 0; i < chunks - start; i++) {
			expected = test_blocks_used(t, (u64)(start + i) * bpc,
						    bpc);
			if (expected != trak_chunk_test(t->map, i)) {
				trak_log(TRAK_LOG_ERR,
					 "%s(): Bitmap inconsistency for chunk %d: expected %d, got %d",
					 test_name, i, expected, !expected);
				return -EINVAL;
			}
		}
	}
	return 0;
}

/* Downsampling the block-level bitmap against the reader's coarse maps. */
static int test_export(struct blkbmp_test *t, u8 *exported)
{
	const s32 bytes = DIV_ROUND_UP(t->blocks, 8);
	u32 es, k, n, i;
	int rc;

	trak_log(2, "%s(): Testing trak_blkbmp_export()", test_name);
	for (es = t->bs; es <= TEST_MAX_CHUNK; es *= 2) {
		k = es / t->bs;
		n = DIV_ROUND_UP(t->blocks, k);
		trak_log(3, "%s(): Testing downsample to extent size %d",
			 test_name, es);
		rc = t->reader->read(t->ctx, 0, es, (u64 *)t->map, n);
		if (rc)
			return rc;
		rc = trak_blkbmp_export(&t->bmp, k, (u64 *)exported, bytes);
		if (rc)
			return rc;
		for (i = 0; i < n; i++) {
			if (trak_chunk_test(t->map, i) ==
			    trak_chunk_test(exported, i))
				continue;
			trak_log(TRAK_LOG_ERR,
				 "%s(): Failed to downsample bitmap for extent of size %d: bit %d doesn't match.",
				 test_name, es, i);
			trak_log(TRAK_LOG_ERR,
				 "  chunk_size=%d, blocks_per_chunk=%d, chunks=%d",
				 es, k, n);
			trak_log(TRAK_LOG_ERR,
				 "  read_func() returned %d, export() returned %d",
				 trak_chunk_test(t->map, i),
				 trak_chunk_test(exported, i));
			return -EINVAL;
		}
	}
	return 0;
}

static int test_run(struct blkbmp_test *t)
{
	const u32 bytes = DIV_ROUND_UP(t->blocks, 8);
	u8 *exported;
	int rc;

	rc = trak_blkbmp_test_reader(t);
	if (rc)
		return rc;
	if (!t->block_map)
		t->block_map = vmalloc(bytes);
	t->map = vmalloc(bytes);
	exported = vmalloc(bytes);
	if (!t->block_map || !t->map || !exported) {
		trak_log(TRAK_LOG_ERR, "%s(): Memory allocation failed.",
			 test_name);
		rc = -ENOMEM;
		goto out;
	}
	trak_blkbmp_init(&t->bmp);
	rc = test_against_blkbmp(t);
	if (!rc)
		rc = test_start_chunks(t);
	if (!rc)
		rc = test_export(t, exported);
	trak_blkbmp_destroy(&t->bmp);
out:
	vfree(exported);
	return rc;
}

int trak_blkbmp_test(struct block_device *bdev)
{
	struct blkbmp_test t = { .bdev = bdev };
	loff_t size = bdev_nr_bytes(bdev);
	int rc;

	trak_log(2, "%s(): Testing datablock bitmap code for hdd(%d, %d)",
		 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
	if (size < 0) {
		trak_log(TRAK_LOG_ERR, "%s(): Failed to get size of hdd(%d, %d)",
			 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
		return -EINVAL;
	}
	t.size = size;

	t.reader = trak_blkbmp_find_reader(bdev, &t.bs, &t.ctx);
	if (!t.reader) {
		trak_log(1, "%s(): Cannot recognize file system on hdd(%d, %d).",
			 __func__, MAJOR(bdev->bd_dev), MINOR(bdev->bd_dev));
		return -EINVAL;
	}
	if (!t.bs) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): NULL FS block size returned from FS reader.",
			 __func__);
		rc = -EIO;
	} else if (!is_power_of_2(t.bs)) {
		trak_log(TRAK_LOG_ERR,
			 "%s(): Not pow2 FS block size returned from FS reader.",
			 __func__);
		rc = -EIO;
	} else {
		t.blocks = DIV_ROUND_UP(t.size, t.bs);
		rc = test_run(&t);
	}
	if (!rc)
		trak_log(2, "%s(): Datablock bitmap code tests completed successfully",
			 __func__);
	t.reader->destroy(t.ctx);
	vfree(t.block_map);
	vfree(t.map);
	return rc;
}
