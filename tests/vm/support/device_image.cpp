#include "support/device_image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/findings.h"
#include "support/raw_disk.h"

namespace trak::vmtest {
namespace {

constexpr std::size_t kBlock = 4096;
// Differing blocks listed in a failure; the count says how many more.
constexpr int kListedBlocks = 8;

}  // namespace

ReadBack ReadBytes(const std::string& path, std::uint64_t offset, std::size_t length,
                   ReadMode mode) {
    ReadBack result{0, {}};
    const int flags = O_RDONLY | O_CLOEXEC | (mode == ReadMode::kDirect ? O_DIRECT : 0);
    const int fd = open(path.c_str(), flags);
    if (fd < 0) {
        result.error = errno;
        return result;
    }
    if (mode == ReadMode::kDirect) {
        DirectBuffer buffer(std::max<std::size_t>(length, kBlock));
        result.error = ReadAt(fd, offset, buffer.bytes().first(length));
        if (result.error == 0) {
            const std::span<const std::uint8_t> read = buffer.bytes().first(length);
            result.bytes.assign(read.begin(), read.end());
        }
    } else {
        result.bytes.resize(length);
        result.error = ReadAt(fd, offset, result.bytes);
    }
    close(fd);
    if (result.error != 0) {
        result.bytes.clear();
    }
    return result;
}

ReadBack ReadWholeDevice(const std::string& path, ReadMode mode) {
    const DeviceSize size = SizeOfDevice(path);
    if (size.error != 0) {
        return {size.error, {}};
    }
    return ReadBytes(path, 0, size.bytes, mode);
}

ReadBack ReadWholeFile(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        return {errno, {}};
    }
    return ReadBytes(path, 0, static_cast<std::size_t>(st.st_size), ReadMode::kBuffered);
}

::testing::AssertionResult SameImage(std::span<const std::uint8_t> actual,
                                     std::span<const std::uint8_t> expected,
                                     std::uint32_t chunk_size) {
    if (actual.size() != expected.size()) {
        return ::testing::AssertionFailure()
               << "the image has " << actual.size() << " bytes, not " << expected.size();
    }
    Findings differing(kListedBlocks);
    for (std::size_t at = 0; at < actual.size(); at += kBlock) {
        const std::size_t n = std::min(kBlock, actual.size() - at);
        if (std::memcmp(actual.data() + at, expected.data() + at, n) == 0) {
            continue;
        }
        std::size_t first = at;
        while (actual[first] == expected[first]) {
            ++first;
        }
        differing.Add() << "block " << at / kBlock << " (chunk " << at / chunk_size
                        << "): first difference at byte " << first << ", 0x" << std::hex
                        << static_cast<int>(actual[first]) << " instead of 0x"
                        << static_cast<int>(expected[first]) << std::dec;
    }
    return differing.Result("of " + std::to_string((actual.size() + kBlock - 1) / kBlock) +
                            " blocks of 4096 bytes differ");
}

}  // namespace trak::vmtest
