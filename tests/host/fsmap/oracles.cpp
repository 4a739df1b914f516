#include "oracles.h"

#include <regex>
#include <sstream>
#include <stdexcept>

#include "images.h"

namespace trak::fsmap_test {
namespace {

uint32_t Field(const std::string& text, const std::string& pattern) {
    std::smatch m;
    if (!std::regex_search(text, m, std::regex(pattern))) {
        throw std::runtime_error("no match for " + pattern);
    }
    return static_cast<uint32_t>(std::stoul(m[1]));
}

// Applies `state` to blocks [first, last] of `map` that lie inside it.
void MarkRange(BlockMap& map, uint64_t first, uint64_t last, bool state) {
    for (uint64_t b = first; b <= last && b < map.size(); b++) {
        map[b] = state;
    }
}

}  // namespace

ExtLayout DumpE2fs(const std::string& image, uint64_t partition_blocks) {
    const std::string out = Run("dumpe2fs " + image + " 2>/dev/null");
    ExtLayout ext;
    ext.block_size = Field(out, R"(Block size:\s+(\d+))");
    ext.block_count = Field(out, R"(Block count:\s+(\d+))");
    ext.first_block = Field(out, R"(First block:\s+(\d+))");
    ext.blocks_per_group = Field(out, R"(Blocks per group:\s+(\d+))");

    ext.used.assign(partition_blocks, false);
    MarkRange(ext.used, 0, ext.block_count - 1, true);
    const std::regex group(R"(^Group \d+:)");
    const std::regex free_line(R"(^\s+Free blocks: (.*)$)");
    const std::regex range(R"((\d+)(?:-(\d+))?)");
    std::istringstream lines(out);
    std::smatch m;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_search(line, group)) {
            ext.groups++;
            ext.group_free.push_back(0);
        } else if (std::regex_match(line, m, free_line) && ext.groups > 0) {
            const std::string list = m[1];
            for (std::sregex_iterator it(list.begin(), list.end(), range), end; it != end; ++it) {
                const uint64_t first = std::stoull((*it)[1]);
                const uint64_t last = (*it)[2].matched ? std::stoull((*it)[2]) : first;
                MarkRange(ext.used, first, last, false);
                ext.group_free.back() += last - first + 1;
            }
        }
    }
    return ext;
}

XfsLayout XfsDb(const std::string& image, uint64_t partition_blocks) {
    XfsLayout xfs;
    const std::string sb =
        Run("xfs_db -r -c 'sb 0' -c 'print blocksize agblocks agcount' " + image);
    xfs.block_size = Field(sb, R"(blocksize = (\d+))");
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
