#include "chunk_properties.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace trak::fsmap_test {
namespace {

constexpr uint8_t kGuard = 0xA5;
constexpr size_t kGuardBytes = 16;

// Chunks per call when reading in portions (multiples of 8, like the driver).
constexpr std::array<uint32_t, 3> kPortions = {8, 24, 1000 * 8};

BlockMap Slice(const BlockMap& map, uint64_t first, uint64_t n) {
    return {map.begin() + static_cast<std::ptrdiff_t>(first),
            map.begin() + static_cast<std::ptrdiff_t>(first + n)};
}

}  // namespace

BlockMap ReadChunks(const trak_blkbmp_reader& reader, void* ctx, uint32_t start,
                    uint32_t chunk_size, uint32_t n, int& rc) {
    const size_t bytes = (static_cast<size_t>(n) + 7) / 8;
    // Whole words for the reader, guard bytes after the ones it may write.
    std::vector<u64> words((bytes + kGuardBytes + 7) / 8);
    auto* raw = reinterpret_cast<uint8_t*>(words.data());
    std::fill_n(raw, words.size() * 8, kGuard);
    rc = reader.read(ctx, start, chunk_size, words.data(), n);
    if (rc != 0) {
        return {};
    }
    for (size_t i = bytes; i < words.size() * 8; i++) {
        EXPECT_EQ(raw[i], kGuard) << "byte " << i << " written past " << n << " chunks";
    }
    if (n % 8 != 0) {
        EXPECT_EQ(raw[bytes - 1] >> (n % 8), 0) << "bits set past " << n << " chunks";
    }
    return BitsOf(raw, n);
}

BlockMap ReadBlockMap(const trak_blkbmp_reader& reader, block_device* dev, uint32_t block_size,
                      size_t blocks) {
    uint32_t reported = 0;
    void* ctx = reader.init(dev, &reported);
    if (ctx == nullptr) {
        ADD_FAILURE() << "the reader did not recognise the partition";
        return {};
    }
    EXPECT_EQ(reported, block_size);
    int rc = 0;
    BlockMap map = ReadChunks(reader, ctx, 0, block_size, static_cast<uint32_t>(blocks), rc);
    reader.destroy(ctx);
    EXPECT_EQ(rc, 0);
    return rc == 0 ? map : BlockMap{};
}

void ExpectChunkMapsAgree(const trak_blkbmp_reader& reader, void* ctx, uint32_t block_size,
                          const BlockMap& blocks, uint64_t first_block) {
    int rc = 0;
    for (uint32_t cs = block_size; cs <= kMaxChunkSize; cs *= 2) {
        SCOPED_TRACE("chunk size " + std::to_string(cs));
        const BlockMap expected = Downsample(blocks, cs / block_size);
        const auto chunks = static_cast<uint32_t>(expected.size());
        const uint64_t window = first_block / (cs / block_size);
        if (window + chunks > UINT32_MAX) {
            continue;
        }
        const auto base = static_cast<uint32_t>(window);

        EXPECT_EQ(Difference(ReadChunks(reader, ctx, base, cs, chunks, rc), expected), "");
        ASSERT_EQ(rc, 0);

        for (const uint32_t portion : kPortions) {
            SCOPED_TRACE("portions of " + std::to_string(portion) + " chunks");
            BlockMap assembled;
            for (uint32_t first = 0; first < chunks; first += portion) {
                const uint32_t n = std::min(portion, chunks - first);
                const BlockMap part = ReadChunks(reader, ctx, base + first, cs, n, rc);
                ASSERT_EQ(rc, 0);
                assembled.insert(assembled.end(), part.begin(), part.end());
            }
            EXPECT_EQ(Difference(assembled, expected), "");
        }

        for (const uint32_t start : {1U, 7U, 13U, chunks / 3, chunks / 2 + 5, chunks - 1}) {
            if (start >= chunks) {
                continue;
            }
            SCOPED_TRACE("from chunk " + std::to_string(base + start));
            EXPECT_EQ(Difference(ReadChunks(reader, ctx, base + start, cs, chunks - start, rc),
                                 Slice(expected, start, chunks - start)),
                      "");
            ASSERT_EQ(rc, 0);
            const uint32_t few = std::min(5U, chunks - start);
            EXPECT_EQ(Difference(ReadChunks(reader, ctx, base + start, cs, few, rc),
                                 Slice(expected, start, few)),
                      "");
            ASSERT_EQ(rc, 0);
        }
    }
}

}  // namespace trak::fsmap_test
