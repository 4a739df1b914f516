#include "support/file_churn.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/device_image.h"
#include "support/findings.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kMagic = 0x6368757266696c65ULL;

// One 16-byte record, repeated over the whole file.
struct Record {
    std::uint64_t magic;
    std::uint32_t file;
    std::uint32_t version;
};
static_assert(sizeof(Record) == 16);

// Sizes vary with the version, so that a file cut short or grown by a
// later version's size is noticed.
std::size_t SizeOf(int file, std::uint32_t version) {
    return std::size_t{4096} * (1 + (static_cast<std::size_t>(file) + version) % 7) +
           std::size_t{16} * (version % 64);
}

std::vector<std::uint8_t> ContentsOf(int file, std::uint32_t version) {
    std::vector<std::uint8_t> bytes(SizeOf(file, version));
    const Record record{kMagic, static_cast<std::uint32_t>(file), version};
    for (std::size_t at = 0; at < bytes.size(); at += sizeof(Record)) {
        std::memcpy(bytes.data() + at, &record, sizeof(Record));
    }
    return bytes;
}

std::string NameOf(int file) { return "c" + std::to_string(file); }

double Seconds(FileChurn::Clock::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

FileChurn::FileChurn(std::string dir, int files)
    : dir_(std::move(dir)), files_(files), versions_(static_cast<std::size_t>(files)) {}

FileChurn::~FileChurn() {
    if (thread_.joinable()) {
        {
            const std::lock_guard lock(mutex_);
            stop_ = true;
        }
        thread_.join();
    }
}

void FileChurn::Start() {
    thread_ = std::thread([this] { Run(); });
}

void FileChurn::Run() {
    for (std::uint32_t version = 1;; ++version) {
        for (int f = 0; f < files_; ++f) {
            {
                const std::lock_guard lock(mutex_);
                if (stop_) {
                    return;
                }
            }
            const std::string path = dir_ + "/" + NameOf(f);
            const std::vector<std::uint8_t> bytes = ContentsOf(f, version);
            const Clock::time_point issued = Clock::now();
            const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            const bool written = fd >= 0 && write(fd, bytes.data(), bytes.size()) ==
                                                static_cast<ssize_t>(bytes.size());
            const int error = errno;
            const bool closed = fd >= 0 && close(fd) == 0;
            const Clock::time_point completed = Clock::now();
            if (!written || !closed) {
                const std::lock_guard lock(mutex_);
                failure_ = "writing version " + std::to_string(version) + " of " + path + ": " +
                           std::strerror(written ? errno : error);
                progress_.notify_all();
                return;
            }
            versions_[static_cast<std::size_t>(f)].push_back({version, issued, completed});
        }
        {
            const std::lock_guard lock(mutex_);
            rounds_ = static_cast<int>(version);
        }
        progress_.notify_all();
    }
}

::testing::AssertionResult FileChurn::AwaitRounds(int rounds, std::chrono::seconds timeout) {
    std::unique_lock lock(mutex_);
    const bool done =
        progress_.wait_for(lock, timeout, [&] { return !failure_.empty() || rounds_ >= rounds; });
    if (!failure_.empty()) {
        return ::testing::AssertionFailure() << failure_;
    }
    if (!done) {
        return ::testing::AssertionFailure() << "the files were not rewritten " << rounds
                                             << " times within " << timeout.count() << " s";
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult FileChurn::Stop() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    if (!failure_.empty()) {
        return ::testing::AssertionFailure() << failure_;
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult FileChurn::CopyHoldsVersionsCurrentBetween(
    const std::string& copy_dir, Clock::time_point asked, Clock::time_point returned) const {
    Findings wrong(files_);
    for (int f = 0; f < files_; ++f) {
        const std::vector<Version>& history = versions_[static_cast<std::size_t>(f)];
        const std::string path = copy_dir + "/" + NameOf(f);
        const ReadBack copy = ReadWholeFile(path);
        if (copy.error != 0) {
            wrong.Add() << path << ": " << std::strerror(copy.error);
            continue;
        }
        if (copy.bytes.empty()) {
            const bool in_flight = std::any_of(
                history.begin(), history.end(),
                [&](const Version& v) { return v.issued < returned && v.completed > asked; });
            if (!in_flight) {
                wrong.Add() << path << ": empty, but no rewrite was in flight at the start";
            }
            continue;
        }
        Record record{};
        std::memcpy(&record, copy.bytes.data(), std::min(copy.bytes.size(), sizeof(Record)));
        const auto held = std::find_if(history.begin(), history.end(), [&](const Version& v) {
            return v.number == record.version;
        });
        if (record.magic != kMagic || record.file != static_cast<std::uint32_t>(f) ||
            held == history.end() || copy.bytes != ContentsOf(f, record.version)) {
            wrong.Add() << path << ": " << copy.bytes.size()
                        << " bytes that are no whole version of it";
            continue;
        }
        std::size_t oldest = 0;
        std::size_t newest = 0;
        for (std::size_t i = 0; i < history.size(); ++i) {
            if (history[i].completed < asked) {
                oldest = i;
            }
            if (history[i].issued < returned) {
                newest = i;
            }
        }
        const auto index = static_cast<std::size_t>(held - history.begin());
        if (index < oldest) {
            wrong.Add() << path << ": version " << held->number << ", but version "
                        << history[oldest].number << " completed "
                        << Seconds(asked - history[oldest].completed)
                        << " s before the start was asked";
        } else if (index > newest) {
            wrong.Add() << path << ": version " << held->number << ", issued "
                        << Seconds(held->issued - returned) << " s after the start returned";
        }
    }
    return wrong.Result("of " + std::to_string(files_) + " files of the copy of " + dir_ +
                        " are wrong");
}

}  // namespace trak::vmtest
