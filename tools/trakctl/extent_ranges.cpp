#include "extent_ranges.h"

#include <algorithm>

namespace trakctl {

namespace {

bool bit_set(std::span<const std::uint8_t> bits, std::uint64_t extent) {
    return ((bits[extent >> 3U] >> (extent & 7U)) & 1U) != 0;
}

}  // namespace

std::vector<ExtentRange> set_extent_ranges(std::span<const std::uint8_t> bits,
                                           std::uint64_t extent_cnt) {
    const std::uint64_t count = std::min<std::uint64_t>(extent_cnt, std::uint64_t{bits.size()} * 8);
    std::vector<ExtentRange> ranges;
    for (std::uint64_t extent = 0; extent < count; ++extent) {
        if (!bit_set(bits, extent)) {
            continue;
        }
        if (!ranges.empty() && ranges.back().last + 1 == extent) {
            ranges.back().last = extent;
        } else {
            ranges.push_back({.first = extent, .last = extent});
        }
    }
    return ranges;
}

std::uint64_t extent_count(const std::vector<ExtentRange>& ranges) {
    std::uint64_t count = 0;
    for (const ExtentRange& range : ranges) {
        count += range.last - range.first + 1;
    }
    return count;
}

std::vector<ExtentRange> byte_ranges(const std::vector<ExtentRange>& ranges,
                                     std::uint64_t extent_size, std::uint64_t dev_size) {
    std::vector<ExtentRange> bytes;
    bytes.reserve(ranges.size());
    for (const ExtentRange& range : ranges) {
        const std::uint64_t end = std::min((range.last + 1) * extent_size, dev_size);
        bytes.push_back({.first = range.first * extent_size, .last = end - 1});
    }
    return bytes;
}

std::string format_ranges(const std::vector<ExtentRange>& ranges) {
    if (ranges.empty()) {
        return "none";
    }
    std::string text;
    for (const ExtentRange& range : ranges) {
        if (!text.empty()) {
            text += ',';
        }
        text += std::to_string(range.first);
        if (range.last != range.first) {
            text += '-' + std::to_string(range.last);
        }
    }
    return text;
}

}  // namespace trakctl
