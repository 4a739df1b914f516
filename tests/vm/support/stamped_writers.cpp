#include "support/stamped_writers.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <random>
#include <sstream>

#include "support/findings.h"
#include "support/raw_disk.h"

namespace trak::vmtest {
namespace {

constexpr std::size_t kBlock = 4096;
constexpr std::uint32_t kMaxBlocksPerWrite = 4;
constexpr std::uint32_t kInitialWriter = 0xFFFFFFFFU;
constexpr std::uint64_t kMagic = 0x7472616b7374616dULL;

// One 32-byte record, repeated over the whole block.
struct Stamp {
    std::uint64_t magic;
    std::uint64_t block;
    std::uint32_t writer;
    std::uint32_t sequence;
    std::uint64_t check;
};
static_assert(sizeof(Stamp) == 32);

std::uint64_t CheckOf(std::uint64_t block, std::uint32_t writer, std::uint32_t sequence) {
    return (block * 0x9E3779B97F4A7C15ULL) ^ (std::uint64_t{writer} << 32) ^ sequence;
}

void StampBlock(std::span<std::uint8_t> block, std::uint64_t number, std::uint32_t writer,
                std::uint32_t sequence) {
    const Stamp stamp{kMagic, number, writer, sequence, CheckOf(number, writer, sequence)};
    for (std::size_t at = 0; at < block.size(); at += sizeof(Stamp)) {
        std::memcpy(block.data() + at, &stamp, sizeof(Stamp));
    }
}

// The stamp a block holds, if it holds one whole stamp and nothing else.
std::optional<Stamp> StampOf(std::span<const std::uint8_t> block) {
    Stamp stamp{};
    std::memcpy(&stamp, block.data(), sizeof(Stamp));
    if (stamp.magic != kMagic ||
        stamp.check != CheckOf(stamp.block, stamp.writer, stamp.sequence)) {
        return std::nullopt;
    }
    for (std::size_t at = sizeof(Stamp); at < block.size(); at += sizeof(Stamp)) {
        if (std::memcmp(block.data(), block.data() + at, sizeof(Stamp)) != 0) {
            return std::nullopt;
        }
    }
    return stamp;
}

double Seconds(StampedWriters::Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

}  // namespace

StampedWriters::StampedWriters(std::string device, std::uint64_t blocks, int writers,
                               std::uint32_t seed)
    : device_(std::move(device)),
      blocks_(blocks),
      writers_(writers),
      seed_(seed),
      logs_(static_cast<std::size_t>(writers)),
      completed_(static_cast<std::size_t>(writers), 0),
      quota_(static_cast<std::size_t>(writers), -1) {}

StampedWriters::~StampedWriters() {
    {
        const std::lock_guard lock(mutex_);
        std::fill(quota_.begin(), quota_.end(), 0);
    }
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

std::vector<std::uint8_t> StampedWriters::InitialImage(std::uint64_t blocks) {
    std::vector<std::uint8_t> image(blocks * kBlock);
    for (std::uint64_t b = 0; b < blocks; ++b) {
        StampBlock(std::span(image).subspan(b * kBlock, kBlock), b, kInitialWriter, 0);
    }
    return image;
}

void StampedWriters::Start() {
    for (int w = 0; w < writers_; ++w) {
        threads_.emplace_back([this, w] { Run(w); });
    }
}

int StampedWriters::Owner(std::uint64_t block) const {
    const std::uint64_t region = blocks_ / static_cast<std::uint64_t>(writers_);
    return static_cast<int>(std::min<std::uint64_t>(block / region, writers_ - 1));
}

void StampedWriters::Run(int writer) {
    const std::uint64_t region = blocks_ / static_cast<std::uint64_t>(writers_);
    const std::uint64_t first = region * static_cast<std::uint64_t>(writer);
    const std::uint64_t end = writer == writers_ - 1 ? blocks_ : first + region;
    std::mt19937 random(seed_ + static_cast<std::uint32_t>(writer));
    std::vector<Write>& log = logs_[static_cast<std::size_t>(writer)];
    const auto w = static_cast<std::size_t>(writer);
    DirectBuffer buffer(kMaxBlocksPerWrite * kBlock);
    const int fd = open(device_.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC);
    std::string failure = fd < 0 ? "opening " + device_ + ": " + std::strerror(errno) : "";

    for (std::uint32_t sequence = 1; failure.empty(); ++sequence) {
        {
            const std::lock_guard lock(mutex_);
            if ((quota_[w] >= 0 && completed_[w] >= quota_[w]) || !failure_.empty()) {
                break;
            }
        }
        const std::uint64_t at =
            std::uniform_int_distribution<std::uint64_t>(first, end - 1)(random);
        const auto count = static_cast<std::uint32_t>(std::uniform_int_distribution<std::uint64_t>(
            1, std::min<std::uint64_t>(kMaxBlocksPerWrite, end - at))(random));
        for (std::uint32_t i = 0; i < count; ++i) {
            StampBlock(buffer.bytes().subspan(i * kBlock, kBlock), at + i,
                       static_cast<std::uint32_t>(writer), sequence);
        }
        const std::size_t length = count * kBlock;
        const Clock::time_point issued = Clock::now();
        const ssize_t n =
            pwrite(fd, buffer.bytes().data(), length, static_cast<off_t>(at * kBlock));
        const Clock::time_point completed = Clock::now();
        if (n != static_cast<ssize_t>(length)) {
            std::ostringstream what;
            what << "writer " << writer << ", write #" << sequence << " of " << count
                 << " blocks at block " << at << ": "
                 << (n < 0 ? std::strerror(errno) : "short write");
            failure = what.str();
            break;
        }
        log.push_back({sequence, at, count, issued, completed});
        {
            const std::lock_guard lock(mutex_);
            ++completed_[w];
        }
        progress_.notify_all();
    }
    if (fd >= 0) {
        close(fd);
    }
    if (!failure.empty()) {
        {
            const std::lock_guard lock(mutex_);
            if (failure_.empty()) {
                failure_ = failure;
            }
        }
        progress_.notify_all();
    }
}

::testing::AssertionResult StampedWriters::AwaitWrites(int writes, std::chrono::seconds timeout) {
    std::unique_lock lock(mutex_);
    const bool done = progress_.wait_for(lock, timeout, [&] {
        return !failure_.empty() || std::all_of(completed_.begin(), completed_.end(),
                                                [&](int n) { return n >= writes; });
    });
    if (!failure_.empty()) {
        return ::testing::AssertionFailure() << failure_;
    }
    if (!done) {
        return ::testing::AssertionFailure() << "the writers did not complete " << writes
                                             << " writes each within " << timeout.count() << " s";
    }
    return ::testing::AssertionSuccess();
}

void StampedWriters::FinishAfter(int writes) {
    {
        const std::lock_guard lock(mutex_);
        for (std::size_t w = 0; w < quota_.size(); ++w) {
            quota_[w] = completed_[w] + writes;
        }
    }
    for (std::thread& thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

std::string StampedWriters::Failure() const {
    const std::lock_guard lock(mutex_);
    return failure_;
}

std::size_t StampedWriters::CompletedWrites() const {
    std::size_t total = 0;
    for (const std::vector<Write>& log : logs_) {
        total += log.size();
    }
    return total;
}

std::vector<std::vector<StampedWriters::Version>> StampedWriters::VersionsByBlock() const {
    std::vector<std::vector<Version>> versions(blocks_, std::vector<Version>{{0, nullptr}});
    for (const std::vector<Write>& log : logs_) {
        for (const Write& write : log) {
            for (std::uint32_t i = 0; i < write.blocks; ++i) {
                versions[write.first_block + i].push_back({write.sequence, &write});
            }
        }
    }
    return versions;
}

::testing::AssertionResult StampedWriters::HoldsVersionsCurrentBetween(
    std::span<const std::uint8_t> image, Clock::time_point asked,
    Clock::time_point returned) const {
    const std::vector<std::vector<Version>> versions = VersionsByBlock();
    Findings findings;
    for (std::uint64_t b = 0; b < blocks_; ++b) {
        const std::optional<Stamp> stamp = StampOf(image.subspan(b * kBlock, kBlock));
        if (!stamp) {
            findings.Add() << "block " << b << " holds no whole stamp";
            continue;
        }
        if (stamp->block != b) {
            findings.Add() << "block " << b << " holds the contents of block " << stamp->block;
            continue;
        }
        const std::vector<Version>& history = versions[b];
        // The versions current at `asked` and at `returned`: the last one
        // completed before the first, the last one issued before the
        // second. Versions of one block come from one writer, in order.
        std::size_t oldest = 0;
        std::size_t newest = 0;
        for (std::size_t i = 1; i < history.size(); ++i) {
            if (history[i].write->completed < asked) {
                oldest = i;
            }
            if (history[i].write->issued < returned) {
                newest = i;
            }
        }
        const bool initial = stamp->writer == kInitialWriter && stamp->sequence == 0;
        const auto held = std::find_if(history.begin(), history.end(), [&](const Version& v) {
            return initial ? v.write == nullptr
                           : v.write != nullptr && v.sequence == stamp->sequence &&
                                 stamp->writer == static_cast<std::uint32_t>(Owner(b));
        });
        if (held == history.end()) {
            findings.Add() << "block " << b << " holds writer " << stamp->writer << "'s write #"
                           << stamp->sequence << ", which never wrote it";
            continue;
        }
        const auto index = static_cast<std::size_t>(held - history.begin());
        if (index >= oldest && index <= newest) {
            continue;
        }
        std::ostream& out = findings.Add();
        out << "block " << b << " (writer " << Owner(b) << ") holds "
            << (initial ? std::string("its initial contents")
                        : "write #" + std::to_string(stamp->sequence));
        if (index < oldest) {
            out << ", but write #" << history[oldest].sequence << " completed "
                << Seconds(asked - history[oldest].write->completed)
                << " s before the start was asked";
        } else {
            out << ", issued " << Seconds(held->write->issued - returned)
                << " s after the start returned";
        }
    }
    return findings.Result("of " + std::to_string(blocks_) + " blocks are wrong");
}

::testing::AssertionResult StampedWriters::HoldsLastVersions(
    std::span<const std::uint8_t> image) const {
    const std::vector<std::vector<Version>> versions = VersionsByBlock();
    Findings findings;
    for (std::uint64_t b = 0; b < blocks_; ++b) {
        const Version& last = versions[b].back();
        const std::optional<Stamp> stamp = StampOf(image.subspan(b * kBlock, kBlock));
        const std::uint32_t writer =
            last.write == nullptr ? kInitialWriter : static_cast<std::uint32_t>(Owner(b));
        if (!stamp || stamp->block != b || stamp->writer != writer ||
            stamp->sequence != last.sequence) {
            findings.Add() << "block " << b << " does not hold its last version, write #"
                           << last.sequence
                           << (stamp ? ", but write #" + std::to_string(stamp->sequence) +
                                           " of block " + std::to_string(stamp->block)
                                     : ", nor any whole stamp");
        }
    }
    return findings.Result("of " + std::to_string(blocks_) + " blocks are wrong");
}

}  // namespace trak::vmtest
