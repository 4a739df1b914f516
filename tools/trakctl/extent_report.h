// A bitmap of extents (changed extents, extents holding data) printed as
// extent ranges and the byte ranges of the partition they cover.
#pragma once

#include <cstdint>
#include <ostream>
#include <span>

#include "report.h"

namespace trakctl {

// The extents a bitmap describes.
struct ExtentGeometry {
    std::uint64_t extent_size = 0;  // bytes
    std::uint64_t extent_cnt = 0;   // bits that are extents
    std::uint64_t dev_size = 0;     // bytes of the partition; the last extent may be short
};

// Text: "extents 0-3,17 of 33 (extent size 65536)" and
// "bytes 0-262143,1114112-1179647 (5 extents set)".
// JSON: the fields of `head` (what the bitmap is), then extent_size,
// extent_cnt, set_cnt, ranges and byte_ranges, each range a [first, last]
// pair.
void print_extents(std::span<const std::uint8_t> bits, const ExtentGeometry& geometry,
                   const Report& head, OutputFormat format, std::ostream& out);

}  // namespace trakctl
