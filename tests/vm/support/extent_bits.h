// Change bitmaps as user space sees them: bit e of extent e is bit e & 7 of
// byte e >> 3.
#ifndef TRAK_TESTS_VM_SUPPORT_EXTENT_BITS_H_
#define TRAK_TESTS_VM_SUPPORT_EXTENT_BITS_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <vector>

namespace trak::vmtest {

// Bytes of a bitmap of `extent_count` extents.
std::size_t BitmapBytes(std::uint64_t extent_count);

bool ExtentBit(std::span<const std::uint8_t> bits, std::uint64_t extent);
void SetExtentBit(std::span<std::uint8_t> bits, std::uint64_t extent);

// A bitmap of `bytes` bytes with exactly the bits of `extents` set.
std::vector<std::uint8_t> BitmapOf(std::size_t bytes, std::span<const std::uint64_t> extents);

// The extents whose bits are set, ascending.
std::vector<std::uint64_t> SetExtents(std::span<const std::uint8_t> bits);

// Every byte is 0xFF.
::testing::AssertionResult AllOnes(std::span<const std::uint8_t> bits);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_EXTENT_BITS_H_
