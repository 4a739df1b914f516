// Random writes of mixed sizes to a raw device, kept in step with an
// in-memory model of the device's contents, so that any later state of the
// device (or of a snapshot of it) can be compared with what it must hold.
#ifndef TRAK_TESTS_VM_SUPPORT_IMAGE_WRITES_H_
#define TRAK_TESTS_VM_SUPPORT_IMAGE_WRITES_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <vector>

#include "support/raw_disk.h"

namespace trak::vmtest {

struct ImageWrite {
    std::uint64_t offset;
    std::vector<std::uint8_t> bytes;
};

// `count` writes inside an image of `image_size` bytes, from one sector to
// 1 MiB, every offset and length a multiple of 512: single sectors that are
// not 4096-byte aligned, and about half of the longer writes placed across
// a boundary between two chunks of `chunk_size` bytes. Their bytes are
// random, so each differs from what it overwrites. The same seed gives the
// same writes.
std::vector<ImageWrite> MixedWrites(std::uint64_t image_size, std::uint32_t chunk_size, int count,
                                    std::uint32_t seed);

// Bytes made from `seed` alone, for filling an image before a test.
std::vector<std::uint8_t> RandomBytes(std::size_t size, std::uint32_t seed);

// Writes each of `writes` through `writer`, in order, and applies it to
// `image`. Fails at the first write that fails, naming it.
::testing::AssertionResult WriteAll(const DirectWriter& writer, std::span<const ImageWrite> writes,
                                    std::vector<std::uint8_t>& image);

// The chunks of `chunk_size` bytes that `writes` touch, ascending.
std::vector<std::uint64_t> TouchedChunks(std::span<const ImageWrite> writes,
                                         std::uint32_t chunk_size);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_IMAGE_WRITES_H_
