// The set extents of a change bitmap, as runs of consecutive extents.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace trakctl {

// Extents first to last, both included.
struct ExtentRange {
    std::uint64_t first;
    std::uint64_t last;

    bool operator==(const ExtentRange&) const = default;
};

// The runs of set bits among the first `extent_cnt` bits of `bits` (extent e
// is bit e & 7 of byte e >> 3); bits past `extent_cnt` or past the end of
// `bits` are not extents and are ignored.
std::vector<ExtentRange> set_extent_ranges(std::span<const std::uint8_t> bits,
                                           std::uint64_t extent_cnt);

// How many extents the ranges cover.
std::uint64_t extent_count(const std::vector<ExtentRange>& ranges);

// The bytes of a device of `dev_size` bytes that each range of extents of
// `extent_size` bytes covers; the last extent of the device may be short.
// Every range must start inside the device, as the driver's extents do.
std::vector<ExtentRange> byte_ranges(const std::vector<ExtentRange>& ranges,
                                     std::uint64_t extent_size, std::uint64_t dev_size);

// "0-3,17": a single number for a range of one, "none" when empty.
std::string format_ranges(const std::vector<ExtentRange>& ranges);

}  // namespace trakctl
