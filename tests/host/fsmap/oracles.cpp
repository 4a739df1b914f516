#include "oracles.h"

#include <algorithm>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "images.h"

namespace trak::fsmap_test {
namespace {

uint64_t FieldU64(const std::string& text, const std::string& pattern) {
    std::smatch m;
    if (!std::regex_search(text, m, std::regex(pattern))) {
        throw std::runtime_error("no match for " + pattern);
    }
    return std::stoull(m[1]);
}

uint32_t Field(const std::string& text, const std::string& pattern) {
    return static_cast<uint32_t>(FieldU64(text, pattern));
}

// Applies `state` to blocks [first, last] of `map` that lie inside it.
void MarkRange(BlockMap& map, uint64_t first, uint64_t last, bool state) {
    for (uint64_t b = first; b <= last && b < map.size(); b++) {
        map[b] = state;
    }
}

}  // namespace

ExtLayout DumpE2fs(const std::string& image, uint64_t blocks, uint64_t first) {
    const std::string header = Run("dumpe2fs -h " + image + " 2>/dev/null");
    ExtLayout ext;
    ext.block_size = Field(header, R"(Block size:\s+(\d+))");
    ext.block_count = FieldU64(header, R"(Block count:\s+(\d+))");
    ext.first_block = Field(header, R"(First block:\s+(\d+))");
    ext.blocks_per_group = Field(header, R"(Blocks per group:\s+(\d+))");
    std::smatch m;
    const std::regex cluster(R"(Cluster size:\s+(\d+))");
    ext.cluster_size = std::regex_search(header, m, cluster) ? std::stoul(m[1]) : ext.block_size;
    const uint64_t ratio = ext.cluster_size / ext.block_size;

    ext.first = first;
    ext.used.assign(blocks, false);
    const auto mark = [&](uint64_t from, uint64_t to, bool state) {
        for (uint64_t b = std::max(from, first); b <= to && b - first < blocks; b++) {
            ext.used[b - first] = state;
        }
    };
    mark(0, ext.block_count - 1, true);

    // Per group: its header line, where its block bitmap is, its free list.
    const std::string lines = Run("dumpe2fs " + image +
                                  " 2>/dev/null | grep -E '^Group [0-9]+:|^  (Block bitmap at|Free "
                                  "blocks:) '");
    constexpr std::string_view kGroup = "Group ";
    constexpr std::string_view kBitmap = "  Block bitmap at ";
    constexpr std::string_view kFree = "  Free blocks: ";
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(kGroup)) {
            ext.groups++;
            ext.group_free.push_back(0);
            ext.uninit_groups += line.find("BLOCK_UNINIT") != std::string::npos ? 1 : 0;
        } else if (line.starts_with(kBitmap)) {
            // "Block bitmap at 130 (bg #0 + 130)" when another group holds it.
            const size_t bg = line.find("(bg #");
            if (bg != std::string::npos && std::stoul(line.substr(bg + 5)) != ext.groups - 1) {
                ext.bitmaps_elsewhere++;
            }
        } else if (line.starts_with(kFree) && ext.groups > 0) {
            // "a-b, c": with bigalloc each number is a cluster's first block.
            std::istringstream list(line.substr(kFree.size()));
            for (std::string range; std::getline(list, range, ',');) {
                if (range.find_first_of("0123456789") == std::string::npos) {
                    continue;
                }
                const size_t dash = range.find('-');
                const uint64_t from = std::stoull(range);
                const uint64_t to =
                    (dash == std::string::npos ? from : std::stoull(range.substr(dash + 1))) +
                    ratio - 1;
                mark(from, to, false);
                ext.group_free.back() += (to + 1 - from) / ratio;
            }
        }
    }
    return ext;
}

XfsLayout XfsDb(const std::string& image, uint64_t partition_blocks) {
    XfsLayout xfs;
    const std::string sb =
        Run("xfs_db -r -c 'sb 0' -c 'print blocksize sectsize agblocks agcount' " + image);
    xfs.block_size = Field(sb, R"(blocksize = (\d+))");
    xfs.sector_size = Field(sb, R"(sectsize = (\d+))");
    xfs.agblocks = Field(sb, R"(agblocks = (\d+))");
    xfs.agcount = Field(sb, R"(agcount = (\d+))");

    xfs.used.assign(partition_blocks, false);
    MarkRange(xfs.used, 0, static_cast<uint64_t>(xfs.agcount) * xfs.agblocks - 1, true);
    const std::regex record(R"(^\d+:\[(\d+),(\d+)\])");
    for (uint32_t ag = 0; ag < xfs.agcount; ag++) {
        const std::string xfs_db = "xfs_db -r -c 'agf " + std::to_string(ag) + "' ";
        const std::string agf = Run(std::string(xfs_db).append("-c print ").append(image));
        xfs.agf.push_back({Field(agf, R"(\blength = (\d+))"), Field(agf, R"(\bbnoroot = (\d+))"),
                           Field(agf, R"(\bcntroot = (\d+))"), Field(agf, R"(\bbnolevel = (\d+))"),
                           Field(agf, R"(\bcntlevel = (\d+))"),
                           Field(agf, R"(\bfreeblks = (\d+))")});
        // btdump prints the leaf records of the by-block tree, in order.
        std::istringstream dump(
            Run(std::string(xfs_db).append("-c 'addr bnoroot' -c btdump ").append(image)));
        const uint64_t ag_start = static_cast<uint64_t>(ag) * xfs.agblocks;
        std::smatch m;
        for (std::string line; std::getline(dump, line);) {
            if (std::regex_search(line, m, record)) {
                const uint64_t start = ag_start + std::stoull(m[1]);
                MarkRange(xfs.used, start, start + std::stoull(m[2]) - 1, false);
            }
        }
    }
    return xfs;
}

ReiserfsLayout DebugReiserfs(const std::string& image, uint64_t partition_blocks) {
    const std::string out = Run("debugreiserfs -m " + image);
    ReiserfsLayout rfs;
    rfs.block_size = Field(out, R"(Blocksize: (\d+))");
    rfs.block_count = Field(out, R"(Count of blocks on the device: (\d+))");
    rfs.free_blocks = Field(out, R"(Free blocks[^:]*: (\d+))");
    rfs.bitmaps = Field(out, R"(Number of bitmaps: (\d+))");

    rfs.used.assign(partition_blocks, false);
    MarkRange(rfs.used, 0, rfs.block_count - 1, true);
    const std::regex bitmap(R"(^#\d+: block (\d+):)");
    const std::regex free_range(R"(Free ?\((\d+)-(\d+)\))");
    std::istringstream lines(out);
    std::smatch m;
    for (std::string line; std::getline(lines, line);) {
        if (!std::regex_search(line, m, bitmap)) {
            continue;
        }
        rfs.bitmap_blocks.push_back(std::stoull(m[1]));
        for (std::sregex_iterator it(line.begin(), line.end(), free_range), end; it != end; ++it) {
            MarkRange(rfs.used, std::stoull((*it)[1]), std::stoull((*it)[2]), false);
        }
    }
    return rfs;
}

BlockMap Downsample(const BlockMap& blocks, uint64_t k) {
    BlockMap chunks((blocks.size() + k - 1) / k, false);
    for (uint64_t b = 0; b < blocks.size(); b++) {
        if (blocks[b]) {
            chunks[b / k] = true;
        }
    }
    return chunks;
}

BlockMap BitsOf(const uint8_t* bits, uint64_t n) {
    BlockMap map(n);
    for (uint64_t i = 0; i < n; i++) {
        map[i] = ((bits[i / 8] >> (i % 8)) & 1) != 0;
    }
    return map;
}

std::string Difference(const BlockMap& actual, const BlockMap& expected) {
    if (actual.size() != expected.size()) {
        return "sizes differ: " + std::to_string(actual.size()) + " instead of " +
               std::to_string(expected.size());
    }
    uint64_t count = 0;
    uint64_t first = 0;
    for (uint64_t i = actual.size(); i-- > 0;) {
        if (actual[i] != expected[i]) {
            count++;
            first = i;
        }
    }
    if (count == 0) {
        return "";
    }
    return std::to_string(count) + " bits differ, the first is " + std::to_string(first) + ": " +
           (actual[first] ? "used" : "free") + " instead of " + (expected[first] ? "used" : "free");
}

}  // namespace trak::fsmap_test
