// Builds the data-block bitmap of 8 GiB, half-full ext3, ext4, XFS version 4
// and XFS version 5 images at 4 KiB and 64 KiB chunks, and reports how long
// that takes and how many bytes the compressed bitmap takes against the raw
// bit count.
//
// The images are made in $TMPDIR (default /tmp) one at a time and each is
// removed after its rows; making them writes about 16 GiB.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "captured_log.h"
#include "fsmap_api.h"
#include "images.h"
#include "opened_image.h"

namespace {

using trak::fsmap_test::ScratchDir;
using trak::host::LogLine;
using trak::host::OpenedImage;
using trak::host::TakeLog;

constexpr uint64_t kMiB = uint64_t{1024} * 1024;
constexpr uint64_t kImageBytes = uint64_t{8} * 1024 * kMiB;
constexpr int kRuns = 3;

struct Result {
    double best_ms = 0;
    int64_t chunks = 0;
    int64_t compressed_bytes = 0;
};

// The bytes every segment takes, as the level-3 layout lines report them.
int64_t CompressedBytes(const std::vector<LogLine>& log) {
    const std::regex layout(R"(^Block Bitmap Fragment: \d+B => (\d+)B)");
    int64_t total = 0;
    std::smatch m;
    for (const LogLine& line : log) {
        if (line.level == 3 && std::regex_search(line.text, m, layout)) {
            total += std::stoll(m[1]);
        }
    }
    return total;
}

Result Measure(const std::string& image, uint32_t chunk_size) {
    OpenedImage dev(image);
    Result result;
    for (int run = 0; run < kRuns; run++) {
        trak_blkbmp bmp{};
        trak_blkbmp_init(&bmp);
        TakeLog();
        const auto start = std::chrono::steady_clock::now();
        const int rc = trak_blkbmp_read(&bmp, dev.get(), chunk_size);
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - start;
        if (rc != 0) {
            throw std::runtime_error("trak_blkbmp_read failed: " + std::to_string(rc));
        }
        result.best_ms = run == 0 ? took.count() : std::min(result.best_ms, took.count());
        result.chunks = bmp.chunks;
        result.compressed_bytes = CompressedBytes(TakeLog());
        trak_blkbmp_destroy(&bmp);
    }
    return result;
}

void Report(const char* name, const std::string& image) {
    for (const uint32_t chunk_size : {4096U, 65536U}) {
        const Result r = Measure(image, chunk_size);
        const int64_t raw = (r.chunks + 7) / 8;
        std::printf("%-6s %6u %9lld %10.1f %11lld %11lld %7.2f%%\n", name, chunk_size,
                    static_cast<long long>(r.chunks), r.best_ms, static_cast<long long>(raw),
                    static_cast<long long>(r.compressed_bytes),
                    100.0 * static_cast<double>(r.compressed_bytes) / static_cast<double>(raw));
        std::fflush(stdout);
    }
}

// Half full: 2048 files of 2 MiB, each followed by a removed 64 KiB file.
void ReportExt(const char* name, const std::string& fs_type) {
    const ScratchDir dir;
    Report(name, trak::fsmap_test::MakeFilledExtImage(dir, fs_type, kImageBytes, 2048, 2 * kMiB));
}

// Half full: 8 groups of 2 directories with 128 kept files of 2 MiB, each
// following a freed one-block file.
void ReportXfs(const char* name, const std::string& mkfs_options) {
    const ScratchDir dir;
    Report(name,
           trak::fsmap_test::MakeXfsImage(dir, mkfs_options, 4096, 8, 256, kImageBytes, 2 * kMiB));
}

}  // namespace

int main() {
    try {
        std::printf("8 GiB images, half full, made one at a time (about 4 GiB written each)\n");
        std::printf("%-6s %6s %9s %10s %11s %11s %8s\n", "fs", "chunk", "chunks", "best ms",
                    "raw bytes", "compressed", "ratio");
        std::fflush(stdout);
        ReportExt("ext3", "ext3");
        ReportExt("ext4", "ext4");
        ReportXfs("xfs v4", trak::fsmap_test::kXfsV4);
        ReportXfs("xfs v5", trak::fsmap_test::kXfsV5);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "fsmap_bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
