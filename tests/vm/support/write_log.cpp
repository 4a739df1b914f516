#include "support/write_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/raw_disk.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kMagic = 0x6a736677736872ULL;
constexpr std::uint64_t kVersion = 1;

// Both little-endian on disk, as on the machines this runs on.
struct Super {
    std::uint64_t magic;
    std::uint64_t version;
    std::uint64_t nr_entries;
    std::uint32_t sectorsize;
};
struct EntryHeader {
    std::uint64_t sector;
    std::uint64_t nr_sectors;
    std::uint64_t flags;
    std::uint64_t data_len;
};

template <typename T>
T ReadRecord(std::span<const std::uint8_t> bytes) {
    T record{};
    std::memcpy(&record, bytes.data(), sizeof(T));
    return record;
}

}  // namespace

// Reads the log device with O_DIRECT through an aligned window, since
// the log's records are sector-sized but not page-aligned.
class WriteLog::Reader {
  public:
    static constexpr std::size_t kWindow = 4 << 20;

    explicit Reader(const std::string& path)
        : fd_(open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC)),
          error_(fd_ < 0 ? errno : 0),
          window_(kWindow) {}
    ~Reader() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    [[nodiscard]] int error() const { return error_; }

    // Copies `out.size()` bytes at `offset` into `out`. Returns 0 or errno.
    int Read(std::uint64_t offset, std::span<std::uint8_t> out) {
        std::size_t done = 0;
        while (done < out.size()) {
            const std::uint64_t at = offset + done;
            if (at < start_ || at >= start_ + filled_) {
                if (const int error = Fill(at - at % 4096); error != 0) {
                    return error;
                }
            }
            const std::size_t n = std::min<std::uint64_t>(out.size() - done, start_ + filled_ - at);
            std::memcpy(out.data() + done, window_.bytes().data() + (at - start_), n);
            done += n;
        }
        return 0;
    }

  private:
    int Fill(std::uint64_t start) {
        const ssize_t n = pread(fd_, window_.bytes().data(), kWindow, static_cast<off_t>(start));
        if (n <= 0) {
            return n < 0 ? errno : EIO;
        }
        start_ = start;
        filled_ = static_cast<std::size_t>(n);
        return 0;
    }

    int fd_;
    int error_;
    DirectBuffer window_;
    std::uint64_t start_ = 0;
    std::size_t filled_ = 0;
};

WriteLog::WriteLog() = default;
WriteLog::~WriteLog() = default;

::testing::AssertionResult WriteLog::Read(const std::string& path) {
    entries_.clear();
    reader_ = std::make_unique<Reader>(path);
    Reader& log = *reader_;
    if (log.error() != 0) {
        return ::testing::AssertionFailure()
               << "opening " << path << ": " << std::strerror(log.error());
    }
    std::vector<std::uint8_t> sector(512);
    if (const int error = log.Read(0, sector); error != 0) {
        return ::testing::AssertionFailure()
               << "reading the super block of " << path << ": " << std::strerror(error);
    }
    const auto super = ReadRecord<Super>(sector);
    if (super.magic != kMagic || super.version != kVersion || super.sectorsize < 512 ||
        super.sectorsize % 512 != 0) {
        return ::testing::AssertionFailure()
               << path << " holds no write log: magic 0x" << std::hex << super.magic << std::dec
               << ", version " << super.version << ", sector size " << super.sectorsize;
    }
    const std::uint64_t unit = super.sectorsize;
    sector.resize(unit);
    std::uint64_t at = unit;
    for (std::uint64_t i = 0; i < super.nr_entries; ++i) {
        if (const int error = log.Read(at, sector); error != 0) {
            return ::testing::AssertionFailure()
                   << "reading entry " << i << " of " << path << " at byte " << at << ": "
                   << std::strerror(error);
        }
        const auto header = ReadRecord<EntryHeader>(sector);
        LoggedWrite entry;
        entry.offset = header.sector * unit;
        entry.length = header.nr_sectors * unit;
        entry.flags = header.flags;
        at += unit;
        if (entry.Is(LoggedWrite::kMark)) {
            const std::size_t name_length =
                std::min<std::uint64_t>(header.data_len, unit - sizeof(EntryHeader));
            const auto* name = reinterpret_cast<const char*>(sector.data() + sizeof(EntryHeader));
            entry.mark.assign(name, strnlen(name, name_length));
        } else if (entry.Writes()) {
            entry.data_at = at;
            at += entry.length;
        }
        entries_.push_back(std::move(entry));
    }
    return ::testing::AssertionSuccess();
}

std::size_t WriteLog::MarkIndex(const std::string& name) const {
    const auto found = std::find_if(entries_.begin(), entries_.end(), [&](const LoggedWrite& e) {
        return e.Is(LoggedWrite::kMark) && e.mark == name;
    });
    return static_cast<std::size_t>(found - entries_.begin());
}

::testing::AssertionResult WriteLog::Apply(const LoggedWrite& entry,
                                           std::span<std::uint8_t> image) {
    if (entry.length == 0) {
        return ::testing::AssertionSuccess();
    }
    if (entry.offset > image.size() || entry.length > image.size() - entry.offset) {
        return ::testing::AssertionFailure()
               << "a logged write of " << entry.length << " bytes at byte " << entry.offset
               << " lies outside the image of " << image.size() << " bytes";
    }
    const std::span<std::uint8_t> target = image.subspan(entry.offset, entry.length);
    if (entry.Is(LoggedWrite::kDiscard)) {
        std::fill(target.begin(), target.end(), std::uint8_t{0});
        return ::testing::AssertionSuccess();
    }
    if (const int error = reader_->Read(entry.data_at, target); error != 0) {
        return ::testing::AssertionFailure()
               << "reading the " << entry.length << " bytes written at byte " << entry.offset
               << " from the log: " << std::strerror(error);
    }
    return ::testing::AssertionSuccess();
}

}  // namespace trak::vmtest
