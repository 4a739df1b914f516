#include "support/bitmap_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <sstream>

namespace trak::vmtest {
namespace {

constexpr std::string_view kMagic = "TRAKBMP";
constexpr std::size_t kDirtyOffset = 7;
constexpr std::size_t kSizeOffset = 8;
constexpr std::size_t kChecksumOffset = 12;

constexpr std::array<std::uint32_t, 256> MakeCrcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t n = 0; n < table.size(); ++n) {
        std::uint32_t c = n;
        for (int k = 0; k < 8; ++k) {
            c = (c & 1U) != 0 ? 0xEDB88320U ^ (c >> 1) : c >> 1;
        }
        table[n] = c;
    }
    return table;
}

constexpr std::array<std::uint32_t, 256> kCrcTable = MakeCrcTable();

std::uint32_t LoadLe32(const std::vector<std::uint8_t>& raw, std::size_t at) {
    if (raw.size() < at + 4) {
        return 0;
    }
    return static_cast<std::uint32_t>(raw[at]) | static_cast<std::uint32_t>(raw[at + 1]) << 8 |
           static_cast<std::uint32_t>(raw[at + 2]) << 16 |
           static_cast<std::uint32_t>(raw[at + 3]) << 24;
}

void StoreLe32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

std::string Describe(const BitmapFile& file) {
    std::ostringstream out;
    out << file.raw.size() << " bytes, magic \"" << file.magic << "\", dirty "
        << static_cast<int>(file.dirty) << ", size " << file.size << ", checksum 0x" << std::hex
        << file.checksum;
    return out.str();
}

}  // namespace

std::uint32_t Jamcrc(std::span<const std::uint8_t> bytes) {
    std::uint32_t crc = 0xFFFFFFFFU;
    for (const std::uint8_t b : bytes) {
        crc = kCrcTable[(crc ^ b) & 0xFFU] ^ (crc >> 8);
    }
    return crc;
}

BitmapFile ReadBitmapFile(const std::string& path) {
    BitmapFile file;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        file.error = errno;
        return file;
    }
    std::array<std::uint8_t, 65536> chunk{};
    for (;;) {
        const ssize_t n = read(fd, chunk.data(), chunk.size());
        if (n < 0) {
            file.error = errno;
            break;
        }
        if (n == 0) {
            break;
        }
        file.raw.insert(file.raw.end(), chunk.begin(), chunk.begin() + n);
    }
    close(fd);
    const std::size_t magic_size = std::min(file.raw.size(), kMagic.size());
    file.magic.assign(file.raw.begin(), file.raw.begin() + static_cast<long>(magic_size));
    file.dirty = file.raw.size() > kDirtyOffset ? file.raw[kDirtyOffset] : 0;
    file.size = LoadLe32(file.raw, kSizeOffset);
    file.checksum = LoadLe32(file.raw, kChecksumOffset);
    if (file.raw.size() > kBitmapHeaderSize) {
        file.bits.assign(file.raw.begin() + kBitmapHeaderSize, file.raw.end());
    }
    return file;
}

std::vector<std::uint8_t> EncodeBitmapFile(std::uint8_t dirty, std::uint32_t size,
                                           std::uint32_t checksum,
                                           std::span<const std::uint8_t> bits) {
    std::vector<std::uint8_t> out(kMagic.begin(), kMagic.end());
    out.push_back(dirty);
    StoreLe32(out, size);
    StoreLe32(out, checksum);
    out.insert(out.end(), bits.begin(), bits.end());
    return out;
}

std::vector<std::uint8_t> EncodeCleanBitmapFile(std::span<const std::uint8_t> bits) {
    return EncodeBitmapFile(0, static_cast<std::uint32_t>(bits.size()), Jamcrc(bits), bits);
}

int WriteWholeFile(const std::string& path, std::span<const std::uint8_t> bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return errno;
    }
    const ssize_t n = write(fd, bytes.data(), bytes.size());
    int error = n < 0 ? errno : (static_cast<std::size_t>(n) == bytes.size() ? 0 : EIO);
    if (close(fd) != 0 && error == 0) {
        error = errno;
    }
    return error;
}

::testing::AssertionResult IsCleanBitmapFile(const std::string& path,
                                             std::span<const std::uint8_t> bits) {
    const BitmapFile file = ReadBitmapFile(path);
    if (file.error != 0) {
        return ::testing::AssertionFailure() << path << ": errno " << file.error;
    }
    const std::vector<std::uint8_t> expected(bits.begin(), bits.end());
    if (file.magic != kMagic || file.dirty != 0 || file.size != bits.size() ||
        file.checksum != Jamcrc(bits) || file.bits != expected) {
        return ::testing::AssertionFailure()
               << path << " is not a clean save of " << bits.size() << " bytes with checksum 0x"
               << std::hex << Jamcrc(bits) << ": " << Describe(file)
               << (file.bits == expected ? "" : ", other bitmap bytes");
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult IsDirtyBitmapFile(const std::string& path) {
    const BitmapFile file = ReadBitmapFile(path);
    if (file.error != 0) {
        return ::testing::AssertionFailure() << path << ": errno " << file.error;
    }
    if (file.raw.size() != kDirtyBitmapFileSize || file.magic != kMagic || file.dirty != 1) {
        return ::testing::AssertionFailure()
               << path << " is not an 8-byte dirty file: " << Describe(file);
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult IsMarkedDirtyBitmapFile(const std::string& path) {
    const BitmapFile file = ReadBitmapFile(path);
    if (file.error != 0) {
        return ::testing::AssertionFailure() << path << ": errno " << file.error;
    }
    if (file.raw.size() < kDirtyBitmapFileSize || file.magic != kMagic || file.dirty != 1) {
        return ::testing::AssertionFailure()
               << path << " does not carry the dirty flag: " << Describe(file);
    }
    return ::testing::AssertionSuccess();
}

}  // namespace trak::vmtest
