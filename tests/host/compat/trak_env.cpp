// Host implementations of the kernel services declared in trak_env.h.
#include "trak_env.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <string>
#include <vector>

#include "captured_log.h"

namespace {

constexpr int kLogBufferSize = 2048;  // as the driver's log buffer
constexpr unsigned kPageSize = 4096;
constexpr u32 kCrc32cPoly = 0x82F63B78;  // 0x1EDC6F41, bit-reflected
constexpr u16 kCrc16Poly = 0xA001;       // 0x8005, bit-reflected

std::vector<trak::host::LogLine>& Lines() {
    static std::vector<trak::host::LogLine> lines;
    return lines;
}

// The byte-at-a-time table of a bit-reflected CRC with polynomial `poly`.
template <typename Crc>
std::array<Crc, 256> CrcTable(Crc poly) {
    std::array<Crc, 256> table{};
    for (unsigned v = 0; v < table.size(); v++) {
        Crc crc = static_cast<Crc>(v);
        for (int bit = 0; bit < 8; bit++) {
            crc = (crc & 1U) != 0 ? static_cast<Crc>((crc >> 1U) ^ poly)
                                  : static_cast<Crc>(crc >> 1U);
        }
        table.at(v) = crc;
    }
    return table;
}

template <typename Crc>
Crc CrcUpdate(const std::array<Crc, 256>& table, Crc crc, const void* data, size_t length) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < length; i++) {
        crc = static_cast<Crc>((crc >> 8U) ^ table.at((crc ^ bytes[i]) & 0xFFU));
    }
    return crc;
}

}  // namespace

std::vector<trak::host::LogLine> trak::host::TakeLog() {
    std::vector<LogLine> taken;
    taken.swap(Lines());
    return taken;
}

extern "C" {

unsigned long jiffies;

int trak_log(int level, const char* fmt, ...) {
    char buf[kLogBufferSize];
    va_list args;
    va_start(args, fmt);
    vsnprintf(buf, sizeof(buf), fmt, args);
    va_end(args);
    std::string text(buf);
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    Lines().push_back({level, text});
    return 0;
}

u32 crc32c(u32 crc, const void* address, unsigned int length) {
    static const std::array<u32, 256> kTable = CrcTable<u32>(kCrc32cPoly);
    return CrcUpdate(kTable, crc, address, length);
}

u16 crc16(u16 crc, const u8* buffer, size_t len) {
    static const std::array<u16, 256> kTable = CrcTable<u16>(kCrc16Poly);
    return CrcUpdate(kTable, crc, buffer, len);
}

int trak_bread(struct block_device* bdev, void* buf, u32 size, u64 blk, int count) {
    if (size > kPageSize) {
        trak_log(TRAK_LOG_ERR, "%s(): Block size cannot be larger than page size (%d)", __func__,
                 static_cast<int>(kPageSize));
        return -EINVAL;
    }
    auto* dst = static_cast<char*>(buf);
    for (; count > 0; count--, blk++, dst += size) {
        if (pread(bdev->fd, dst, size, static_cast<off_t>(blk * size)) !=
            static_cast<ssize_t>(size)) {
            trak_log(TRAK_LOG_ERR, "%s(): Failed to read %d-byte block #%lld", __func__, size,
                     static_cast<long long>(blk));
            return -EIO;
        }
    }
    return 0;
}

struct trak_file {
    std::string name;
    int fd;
};

struct trak_file* trak_fopen(const char* path, int flags, int mode) {
    const int fd = open(path, flags, mode);
    if (fd < 0) {
        const int err = errno;
        static const char* const kAccess[] = {"reading", "writing", "reading and writing",
                                              "reading and writing"};
        trak_log(TRAK_LOG_ERR, "%s(): Failed to open file %s for %s: errno=%d", __func__, path,
                 kAccess[flags & O_ACCMODE], -err);
        return nullptr;
    }
    return new trak_file{path, fd};
}

int trak_fwrite(struct trak_file* file, loff_t off, const void* buf, int count) {
    const auto* src = static_cast<const char*>(buf);
    int done = 0;
    while (done < count) {
        const ssize_t n = pwrite(file->fd, src + done, count - done, off + done);
        if (n < 0) {
            const int err = errno;
            trak_log(TRAK_LOG_ERR, "%s(): Failed to write %d bytes into %s: rc=%d", __func__,
                     count - done, file->name.c_str(), -err);
            return -err;
        }
        if (n == 0) {
            trak_log(TRAK_LOG_ERR, "%s(): Short write into %s: wrote %d instead of %d", __func__,
                     file->name.c_str(), done, count);
            return -EIO;
        }
        done += static_cast<int>(n);
    }
    return done;
}

int trak_fread(struct trak_file* file, loff_t off, void* buf, int count) {
    auto* dst = static_cast<char*>(buf);
    int done = 0;
    while (done < count) {
        const ssize_t n = pread(file->fd, dst + done, count - done, off + done);
        if (n < 0) {
            const int err = errno;
            trak_log(TRAK_LOG_ERR, "%s(): Failed to read %d bytes from %s: rc=%d", __func__,
                     count - done, file->name.c_str(), -err);
            return -err;
        }
        if (n == 0) {
            trak_log(TRAK_LOG_ERR, "%s(): Unexpected EOF while trying to read %d bytes from %s",
                     __func__, count - done, file->name.c_str());
            break;
        }
        done += static_cast<int>(n);
    }
    return done;
}

int trak_fdatasync(struct trak_file* file) { return fdatasync(file->fd) != 0 ? -errno : 0; }

loff_t trak_fsize(struct trak_file* file) {
    struct stat st {};
    return fstat(file->fd, &st) != 0 ? -errno : st.st_size;
}

int trak_ftruncate(struct trak_file* file) {
    return ftruncate(file->fd, 0) != 0 || fsync(file->fd) != 0 ? -errno : 0;
}

int trak_fclose(struct trak_file* file) {
    const int rc = close(file->fd) != 0 ? -errno : 0;
    delete file;
    return rc;
}

}  // extern "C"
