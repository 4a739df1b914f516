#include "fuzz_image.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <stdexcept>

namespace trak::fuzz {
namespace {

constexpr uint32_t kMinChunkSize = 4096;
constexpr unsigned kChunkShifts = 5;
constexpr unsigned kExportKs = 8;

uint32_t LoadLe32(std::span<const uint8_t> bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4 && at + i < bytes.size(); ++i) {
        value |= static_cast<uint32_t>(bytes[at + i]) << (8 * i);
    }
    return value;
}

void StoreLe32(std::vector<uint8_t>& out, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

}  // namespace

FuzzImage DecodeHeader(std::span<const uint8_t> input) {
    uint32_t sectors = LoadLe32(input, 0) % kMaxImageSectors;
    if (sectors == 0) {
        sectors = kMaxImageSectors;
    }
    const uint8_t shift = input.size() > 4 ? input[4] : 0;
    const uint8_t k = input.size() > 5 ? input[5] : 0;
    return FuzzImage{uint64_t{sectors} * kSectorBytes, kMinChunkSize << (shift % kChunkShifts),
                     1 + static_cast<int32_t>(k % kExportKs)};
}

void WriteImage(std::span<const uint8_t> input, const FuzzImage& image, int fd) {
    if (ftruncate(fd, static_cast<off_t>(image.bytes)) != 0) {
        throw std::runtime_error("cannot size the fuzz image");
    }
    const uint64_t sectors = image.bytes / kSectorBytes;
    for (size_t at = kHeaderBytes; at < input.size(); at += kRecordBytes) {
        std::array<uint8_t, kSectorBytes> data{};
        const size_t from = at + 4;
        if (from < input.size()) {
            const size_t n = std::min<size_t>(kSectorBytes, input.size() - from);
            std::copy_n(input.begin() + static_cast<std::ptrdiff_t>(from), n, data.begin());
        }
        const uint64_t sector = LoadLe32(input, at) % sectors;
        if (pwrite(fd, data.data(), data.size(), static_cast<off_t>(sector * kSectorBytes)) !=
            static_cast<ssize_t>(data.size())) {
            throw std::runtime_error("cannot write the fuzz image");
        }
    }
}

std::vector<uint8_t> EncodeImageFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    file.seekg(0, std::ios::end);
    const auto bytes = static_cast<uint64_t>(file.tellg());
    const uint64_t sectors = bytes / kSectorBytes;
    if (sectors == 0 || sectors >= kMaxImageSectors) {
        throw std::runtime_error(path + ": image size out of the fuzzer's range");
    }
    file.seekg(0);
    std::vector<uint8_t> out;
    StoreLe32(out, static_cast<uint32_t>(sectors));
    out.insert(out.end(), {0, 0, 0, 0});
    std::array<char, kSectorBytes> data{};
    for (uint32_t s = 0; s < sectors; ++s) {
        file.read(data.data(), data.size());
        if (std::all_of(data.begin(), data.end(), [](char c) { return c == 0; })) {
            continue;
        }
        StoreLe32(out, s);
        out.insert(out.end(), data.begin(), data.end());
    }
    return out;
}

}  // namespace trak::fuzz
