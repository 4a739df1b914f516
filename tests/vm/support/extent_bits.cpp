#include "support/extent_bits.h"

namespace trak::vmtest {

std::size_t BitmapBytes(std::uint64_t extent_count) { return (extent_count + 7) / 8; }

bool ExtentBit(std::span<const std::uint8_t> bits, std::uint64_t extent) {
    return (bits[extent >> 3] & (1U << (extent & 7))) != 0;
}

void SetExtentBit(std::span<std::uint8_t> bits, std::uint64_t extent) {
    bits[extent >> 3] |= static_cast<std::uint8_t>(1U << (extent & 7));
}

std::vector<std::uint8_t> BitmapOf(std::size_t bytes, std::span<const std::uint64_t> extents) {
    std::vector<std::uint8_t> bits(bytes, 0);
    for (const std::uint64_t extent : extents) {
        SetExtentBit(bits, extent);
    }
    return bits;
}

std::vector<std::uint64_t> SetExtents(std::span<const std::uint8_t> bits) {
    std::vector<std::uint64_t> extents;
    for (std::uint64_t e = 0; e < bits.size() * 8; ++e) {
        if (ExtentBit(bits, e)) {
            extents.push_back(e);
        }
    }
    return extents;
}

::testing::AssertionResult AllOnes(std::span<const std::uint8_t> bits) {
    for (std::size_t i = 0; i < bits.size(); ++i) {
        if (bits[i] != 0xFF) {
            return ::testing::AssertionFailure()
                   << "byte " << i << " of " << bits.size() << " is 0x" << std::hex
                   << static_cast<int>(bits[i]) << ", not 0xff";
        }
    }
    return ::testing::AssertionSuccess();
}

}  // namespace trak::vmtest
