// The bitmap commands change a live bitmap while writes set bits in it:
// no write may lose its bit to a command that did not mean to clear it,
// and no write may be lost. fio writes through the node with verification
// and logs every request with its times; meanwhile a loop runs MERGE,
// SET, CLR, LOAD, SAVE, GET and GET_AND_CLR on both bitmaps.
//
// The loop works in windows. A window opens when a command that replaces
// the bitmap (CLR, SET, LOAD, or the GET_AND_CLR that closed the window
// before) returns, and closes when a GET_AND_CLR begins; in between only
// MERGE, SAVE and GET run, which never clear a bit. Every write that fio
// issued after the window opened and saw complete before the window closed
// must be in that GET_AND_CLR's bitmap, and in every GET of the window that
// began after the write completed; so must every MERGEd bit and, after a
// SET, every bit SET.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/command.h"
#include "support/extent_bits.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 16384;
constexpr std::uint64_t kSpan = 32 << 20;
constexpr const char* kBitmapMount = "/mnt/trak-load-bitmaps";
constexpr const char* kFioLog = "/tmp/trak-load";
// fio logs times in whole milliseconds.
constexpr double kSlackMs = 2;

// Milliseconds of CLOCK_MONOTONIC, the clock of fio's log below.
double NowMs() {
    return std::chrono::duration<double, std::milli>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// One write as fio logged it.
struct LoggedWrite {
    double issued_ms;     // at the latest
    double completed_ms;  // at the latest
    std::uint64_t first_extent;
    std::uint64_t last_extent;
};

std::vector<LoggedWrite> ReadFioWrites(const std::string& path) {
    // "time (ms), latency (ns), direction, block size, offset, priority"
    std::vector<LoggedWrite> writes;
    std::ifstream log(path);
    std::string line;
    while (std::getline(log, line)) {
        std::istringstream fields(line);
        std::uint64_t time = 0;
        std::uint64_t latency = 0;
        int direction = 0;
        std::uint64_t size = 0;
        std::uint64_t offset = 0;
        char comma = 0;
        if (!(fields >> time >> comma >> latency >> comma >> direction >> comma >> size >> comma >>
              offset) ||
            direction != 1) {
            continue;
        }
        const double completed = static_cast<double>(time) + 1;
        writes.push_back({completed - static_cast<double>(latency) / 1e6 - 1, completed,
                          offset / kExtent, (offset + size - 1) / kExtent});
    }
    return writes;
}

// A bitmap as a command read it, and since when the writes it must hold
// were issued.
struct Reading {
    BitmapKind kind;
    double window_opened_ms;
    double read_ms;
    std::vector<std::uint8_t> bits;
    std::vector<std::uint8_t> must_hold;  // bits MERGEd or SET in the window
};

class CommandLoop {
  public:
    CommandLoop(const ControlDevice& control, std::uint32_t size)
        : control_(control), size_(size) {}

    void Run(const std::atomic<bool>& stop) {
        for (int round = 0; !stop; ++round) {
            if (!Window(round)) {
                return;
            }
        }
    }

    [[nodiscard]] const std::vector<Reading>& readings() const { return readings_; }
    [[nodiscard]] const std::vector<std::string>& failures() const { return failures_; }
    [[nodiscard]] int rounds() const { return rounds_; }

  private:
    // One window on one bitmap; false after a command failed.
    bool Window(int round) {
        const BitmapKind kind =
            round % 2 == 0 ? BitmapKind::kIncremental : BitmapKind::kDifferential;
        std::vector<std::uint8_t> must_hold(size_, 0);
        switch ((round / 2) % 4) {
            case 0:
                if (!Check("CLR", ClearBitmap(control_, 0, kind))) {
                    return false;
                }
                break;
            case 1:
                must_hold = RandomBits();
                if (!Check("SET", SetBitmap(control_, 0, kind, must_hold))) {
                    return false;
                }
                break;
            case 2:
                if (!Check("LOAD", LoadBitmap(control_, 0, kind))) {
                    return false;
                }
                break;
            default:
                // The GET_AND_CLR that closed this bitmap's last window.
                break;
        }
        const double opened = NowMs();
        for (int step = 0; step < 3; ++step) {
            const std::vector<std::uint8_t> merged = RandomBits();
            if (!Check("MERGE", MergeBitmap(control_, 0, kind, merged)) ||
                !Check("SAVE", SaveBitmap(control_, 0, kind))) {
                return false;
            }
            for (std::size_t i = 0; i < merged.size(); ++i) {
                must_hold[i] |= merged[i];
            }
            const double read = NowMs();
            BitmapReply got = GetBitmap(control_, 0, kind, size_);
            if (!Check("GET", got.error)) {
                return false;
            }
            readings_.push_back({kind, opened, read, std::move(got.bits), must_hold});
        }
        const double read = NowMs();
        BitmapReply taken = GetAndClearBitmap(control_, 0, kind, size_);
        if (!Check("GET_AND_CLR", taken.error)) {
            return false;
        }
        readings_.push_back({kind, opened, read, std::move(taken.bits), std::move(must_hold)});
        ++rounds_;
        return true;
    }

    bool Check(const char* command, int error) {
        if (error != 0) {
            failures_.push_back(std::string(command) + ": errno " + std::to_string(error));
        }
        return error == 0;
    }

    // About one extent in a hundred.
    std::vector<std::uint8_t> RandomBits() {
        std::vector<std::uint8_t> bits(size_, 0);
        std::uniform_int_distribution<std::uint64_t> extent(0, size_ * 8 - 1);
        for (std::uint32_t i = 0; i < size_ * 8 / 100; ++i) {
            SetExtentBit(bits, extent(random_));
        }
        return bits;
    }

    const ControlDevice& control_;
    std::uint32_t size_;
    std::mt19937_64 random_{20240611};
    std::vector<Reading> readings_;
    std::vector<std::string> failures_;
    int rounds_ = 0;
};

class CommandsUnderLoadTest : public FilterTest {};

TEST_F(CommandsUnderLoadTest, NoWriteLosesItsBitAndNoWriteIsLost) {
    ASSERT_NO_FATAL_FAILURE(KeepBitmapsOnSpareDisk(kBitmapMount));
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
    const std::uint32_t size = GetInfo(control(), 0).info.incr_bmp_size;

    std::atomic<bool> stop{false};
    CommandLoop loop(control(), size);
    std::thread commands([&] { loop.Run(stop); });
    const CommandResult fio = RunCommand(
        {"fio", "--name=load", "--filename=" + NodeDevice(0), "--direct=1", "--rw=randwrite",
         "--bs=4k", "--size=" + std::to_string(kSpan), "--ioengine=libaio", "--iodepth=8",
         "--verify=crc32c", "--verify_fatal=1", "--do_verify=1", "--clocksource=clock_gettime",
         "--write_lat_log=" + std::string(kFioLog), "--log_offset=1", "--log_alternate_epoch=1",
         "--log_alternate_epoch_clock_id=1"});
    stop = true;
    commands.join();

    EXPECT_EQ(fio.status, 0) << fio.output;
    EXPECT_TRUE(loop.failures().empty()) << loop.failures().front();
    EXPECT_GE(loop.rounds(), 8) << "too few windows to mean anything";
    const std::vector<LoggedWrite> writes = ReadFioWrites(std::string(kFioLog) + "_lat.1.log");
    ASSERT_EQ(writes.size(), kSpan / 4096) << "fio's log of its writes";

    std::uint64_t checked = 0;
    std::vector<std::string> misses;
    for (const Reading& reading : loop.readings()) {
        for (std::uint64_t e = 0; e < reading.must_hold.size() * 8; ++e) {
            if (ExtentBit(reading.must_hold, e) && !ExtentBit(reading.bits, e)) {
                misses.push_back(std::string(KindName(reading.kind)) + " extent " +
                                 std::to_string(e) + " (a command's bit)");
            }
        }
        for (const LoggedWrite& write : writes) {
            if (write.issued_ms < reading.window_opened_ms + kSlackMs ||
                write.completed_ms > reading.read_ms - kSlackMs) {
                continue;
            }
            ++checked;
            for (std::uint64_t e = write.first_extent; e <= write.last_extent; ++e) {
                if (!ExtentBit(reading.bits, e)) {
                    misses.push_back(std::string(KindName(reading.kind)) + " extent " +
                                     std::to_string(e));
                }
            }
        }
    }
    RecordProperty("checked_writes", static_cast<int>(checked));
    RecordProperty("windows", loop.rounds());
    EXPECT_GT(checked, 1000U) << "too few writes fell inside a window";
    EXPECT_TRUE(misses.empty()) << misses.size() << " misses, the first: " << misses.front();
}

}  // namespace
}  // namespace trak::vmtest
