// A snap's copy-on-write order, checked at every moment the power could
// have failed. One disk, logged write by write on a second (log-writes),
// holds both the snapped partition and the ext4 with the snap's COW files.
// Writers keep changing the partition through the filter node while the
// snap is started; one of them writes into each chunk again as soon as
// the chunk shows in the COW bitmap file. The COW store's disk is slowed
// down (dm-delay), which widens every window between a copy and its sync.
//
// The log is then replayed onto an image of the disk, and at every flush,
// at the end of every run of partition writes (the moments where the
// partition is furthest ahead of the COW store) and at random points in
// between, the image is checked as a boot after a power failure would see
// it: the COW store's ext4 recovered by mounting it, every chunk of the
// partition that differs from the snap's image must be marked in the COW
// bitmap file and held by the COW data file.
//
// crash-consistency.sh runs it. TRAK_CRASH_SEED (else a random seed,
// printed), TRAK_CRASH_WRITE_SECONDS (how long the writers run),
// TRAK_CRASH_RANDOM_PREFIXES (random points checked besides the others)
// and TRAK_CRASH_CHUNK_SIZE (bytes) choose the run.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "support/bitmap_follower.h"
#include "support/command.h"
#include "support/cow_invariant.h"
#include "support/delayed_disk.h"
#include "support/device_image.h"
#include "support/filter_test.h"
#include "support/findings.h"
#include "support/kernel_module.h"
#include "support/logged_disk.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/recovered_mount.h"
#include "support/snap_commands.h"
#include "support/stamped_writers.h"
#include "support/test_disks.h"
#include "support/write_log.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::size_t kBlock = 4096;
// The logged disk: the partition first, the COW store after it.
constexpr std::uint64_t kPartitionBytes = 16 * kMiB;
constexpr std::uint64_t kCowStoreBytes = 48 * kMiB;
constexpr const char* kLoggedName = "trak-crash-logged";
constexpr const char* kPartitionName = "trak-crash-partition";
constexpr const char* kCowStoreName = "trak-crash-cow";
constexpr const char* kCowDir = "/mnt/trak-crash-cow";
constexpr const char* kRecoveredDir = "/mnt/trak-crash-recovered";
constexpr const char* kRecoveredCopy = "/tmp/trak-crash-recovered.img";
constexpr const char* kCowBitmapName = "trak1.cowbmp";
constexpr const char* kCowDataName = "trak1.cowdata";
// Marks around the moments checked: the partition holds the snap's image
// from the first on, and the writers are done at the second.
constexpr const char* kFilledMark = "filled";
constexpr const char* kWrittenMark = "written";
constexpr std::int32_t kFilterMinor = 0;
constexpr std::int32_t kSnapMinor = 1;
constexpr std::uint32_t kExtent = 65536;
constexpr int kRandomWriters = 6;
// Every write to the COW store's disk, flushes included, takes this long.
constexpr std::chrono::milliseconds kCowStoreDelay{100};
// What makes a run meaningful: moments checked, moments at which some
// chunk had changed, and chunks changed by the end.
constexpr int kMinCheckedPrefixes = 60;
constexpr int kMinPrefixesWithChanges = 40;
constexpr std::size_t kMinChangedChunks = 24;

std::uint64_t EnvNumber(const char* name, std::uint64_t fallback) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::strtoull(value, nullptr, 0) : fallback;
}

// Replays a write log onto an image of the logged disk and checks the
// COW order at the moments it is asked to.
class PrefixChecker {
  public:
    PrefixChecker(std::span<const std::uint8_t> snap_image, std::uint32_t chunk_size)
        : snap_image_(snap_image),
          chunk_size_(chunk_size),
          image_(kPartitionBytes + kCowStoreBytes, 0),
          store_(kRecoveredCopy, kRecoveredDir) {}

    // Applies the next entry of `log`.
    ::testing::AssertionResult Apply(WriteLog& log, const LoggedWrite& entry) {
        if (entry.Writes() && entry.offset >= kPartitionBytes) {
            ++store_version_;
        }
        ++applied_;
        return log.Apply(entry, image_);
    }

    // Checks the image as it is after the entries applied so far.
    void Check() {
        ++checked_;
        const std::vector<std::uint64_t> changed =
            ChangedChunks(std::span(image_).first(kPartitionBytes), snap_image_, chunk_size_);
        last_changed_ = changed.size();
        if (changed.empty()) {
            return;
        }
        ++with_changes_;
        if (store_version_ != recovered_version_ || !store_mounted_) {
            EXPECT_TRUE(store_.Unmount());
            store_mounted_ = false;
            ++recoveries_;
            const ::testing::AssertionResult mounted =
                store_.Mount(std::span(image_).subspan(kPartitionBytes), "ext4");
            if (!mounted) {
                findings_.Add() << "prefix of " << applied_ << " log entries"
                                << ": the COW store does not come back: " << mounted.message();
                return;
            }
            store_mounted_ = true;
            recovered_version_ = store_version_;
        }
        for (const UnpreservedChunk& chunk :
             UnpreservedChunks(changed, snap_image_, chunk_size_, store_.PathOf(kCowBitmapName),
                               store_.PathOf(kCowDataName))) {
            findings_.Add() << "prefix of " << applied_ << " log entries (" << changed.size()
                            << " chunks changed): chunk " << chunk.chunk
                            << " changed on the partition, " << chunk.why;
        }
    }

    ::testing::AssertionResult Finish() {
        const ::testing::AssertionResult unmounted = store_.Unmount();
        return unmounted ? findings_.Result("chunks changed before they were preserved")
                         : unmounted;
    }

    [[nodiscard]] std::span<const std::uint8_t> image() const { return image_; }
    [[nodiscard]] int checked() const { return checked_; }
    [[nodiscard]] int with_changes() const { return with_changes_; }
    [[nodiscard]] int recoveries() const { return recoveries_; }
    [[nodiscard]] std::size_t last_changed() const { return last_changed_; }

  private:
    std::span<const std::uint8_t> snap_image_;
    std::uint32_t chunk_size_;
    std::vector<std::uint8_t> image_;
    RecoveredMount store_;
    bool store_mounted_ = false;
    // Counts the COW store's changes, so that a store that did not change
    // since it was last recovered is not recovered again.
    std::uint64_t store_version_ = 0;
    std::uint64_t recovered_version_ = 0;
    std::size_t applied_ = 0;
    int checked_ = 0;
    int with_changes_ = 0;
    int recoveries_ = 0;
    std::size_t last_changed_ = 0;
    Findings findings_{20};
};

bool WritesPartition(const LoggedWrite& entry) {
    return entry.Writes() && entry.offset < kPartitionBytes;
}

// The prefixes (numbers of entries applied) to check between the entries
// `first` and `last`: after each flush, at the end of each run of
// partition writes, and `random_count` more drawn from `random`.
std::set<std::size_t> PrefixesToCheck(const std::vector<LoggedWrite>& entries, std::size_t first,
                                      std::size_t last, std::uint64_t random_count,
                                      std::mt19937& random) {
    std::set<std::size_t> prefixes;
    for (std::size_t k = first + 1; k <= last; ++k) {
        const LoggedWrite& previous = entries[k - 1];
        if (previous.Is(LoggedWrite::kFlush) ||
            (WritesPartition(previous) && !WritesPartition(entries[k]))) {
            prefixes.insert(k);
        }
    }
    std::uniform_int_distribution<std::size_t> any(first + 1, last);
    for (std::uint64_t i = 0; i < random_count; ++i) {
        prefixes.insert(any(random));
    }
    return prefixes;
}

class CrashConsistencyTest : public FilterTest {
  protected:
    // Lays out the logged disk, fills the partition with the snap's image
    // to be and makes the COW store's ext4 on its slowed-down part.
    void PrepareDisks(std::span<const std::uint8_t> snap_image) {
        ASSERT_TRUE(logged_.Create(kTrackedDisk, kSpareDisk,
                                   {{kPartitionName, 0, kPartitionBytes},
                                    {kCowStoreName, kPartitionBytes, kCowStoreBytes}}));
        const std::string partition = LoggedDisk::Path(kPartitionName);
        {
            const DirectWriter writer(partition);
            ASSERT_EQ(writer.Write(0, snap_image), 0);
            ASSERT_EQ(writer.Sync(), 0);
        }
        slow_store_.emplace("trak-crash-cow-slow");
        ASSERT_TRUE(slow_store_->Create(LoggedDisk::Path(kCowStoreName), kCowStoreDelay));
        // Nothing left for the file system to write lazily later.
        ASSERT_TRUE(
            Succeeds({"mkfs.ext4", "-q", "-F", "-b", "4096", "-E",
                      "nodiscard,lazy_itable_init=0,lazy_journal_init=0", slow_store_->path()}));
        ASSERT_EQ(Mount(slow_store_->path(), kCowDir, "ext4"), 0);
        ASSERT_TRUE(logged_.Mark(kFilledMark));
    }

    void StartSnap(std::uint32_t chunk_size) {
        ASSERT_NO_FATAL_FAILURE(
            AddFilterNode(LoggedDisk::Path(kPartitionName), kExtent, kFilterMinor, true));
        trak_add_snap_args record =
            SnapRecord(kFilterMinor, chunk_size, std::string(kCowDir) + "/" + kCowBitmapName,
                       std::string(kCowDir) + "/" + kCowDataName, kSnapMinor);
        ASSERT_EQ(AddSnap(control(), record), 0);
        ASSERT_EQ(StartNode(control(), kSnapMinor), 0);
    }

    // Undoes the stack from the top, which completes the log.
    void TearDownDisks() {
        ASSERT_EQ(UnloadDriver(), 0);
        ASSERT_EQ(Unmount(kCowDir), 0);
        slow_store_.reset();
        ASSERT_TRUE(logged_.Remove());
    }

    // The driver holds the COW files open: it goes first, then the
    // mounts, and the devices below them last.
    void TearDown() override {
        if (ModuleLoaded(kDriverModule)) {
            EXPECT_EQ(UnloadDriver(), 0);
        }
        FilterTest::TearDown();
    }

    LoggedDisk logged_{kLoggedName};
    std::optional<DelayedDisk> slow_store_;
};

TEST_F(CrashConsistencyTest, NoChunkChangesBeforeItsCopyAndBitAreDurable) {
    const auto seed =
        static_cast<std::uint32_t>(EnvNumber("TRAK_CRASH_SEED", std::random_device{}()));
    const std::uint64_t write_seconds = EnvNumber("TRAK_CRASH_WRITE_SECONDS", 30);
    const std::uint64_t random_prefixes = EnvNumber("TRAK_CRASH_RANDOM_PREFIXES", 40);
    const auto chunk_size = static_cast<std::uint32_t>(EnvNumber("TRAK_CRASH_CHUNK_SIZE", 65536));
    std::cout << "crash consistency: seed " << seed << ", chunks of " << chunk_size
              << " bytes, writers for " << write_seconds << " s, " << random_prefixes
              << " random prefixes (TRAK_CRASH_SEED=" << seed << " repeats it)" << std::endl;
    SCOPED_TRACE("TRAK_CRASH_SEED=" + std::to_string(seed));

    const std::vector<std::uint8_t> snap_image =
        StampedWriters::InitialImage(kPartitionBytes / kBlock);
    ASSERT_NO_FATAL_FAILURE(PrepareDisks(snap_image));
    ASSERT_NO_FATAL_FAILURE(StartSnap(chunk_size));

    {
        BitmapFollower follower(std::string(kCowDir) + "/" + kCowBitmapName,
                                NodeDevice(kFilterMinor), chunk_size, seed);
        StampedWriters writers(NodeDevice(kFilterMinor), kPartitionBytes / kBlock, kRandomWriters,
                               seed);
        follower.Start();
        writers.Start();
        std::this_thread::sleep_for(std::chrono::seconds(write_seconds));
        writers.FinishAfter(1);
        EXPECT_EQ(follower.Stop(), "");
        EXPECT_EQ(writers.Failure(), "");
        std::cout << "crash consistency: " << writers.CompletedWrites() << " random writes, "
                  << follower.writes() << " writes into chunks being preserved" << std::endl;
        EXPECT_GT(follower.writes(), 0) << "no chunk ever showed in the COW bitmap file";
    }
    // Writes still waiting for a flush go into the log before the mark.
    ASSERT_EQ(SyncDevice(NodeDevice(kFilterMinor)), 0);
    ASSERT_TRUE(logged_.Mark(kWrittenMark));
    ASSERT_NO_FATAL_FAILURE(TearDownDisks());

    WriteLog log;
    ASSERT_TRUE(log.Read(kSpareDisk));
    const std::vector<LoggedWrite>& entries = log.entries();
    const std::size_t first = log.MarkIndex(kFilledMark);
    const std::size_t last = log.MarkIndex(kWrittenMark);
    ASSERT_LT(first, last) << "marks \"" << kFilledMark << "\" and \"" << kWrittenMark
                           << "\" in the log of " << entries.size() << " entries";

    std::mt19937 random(seed);
    const std::set<std::size_t> prefixes =
        PrefixesToCheck(entries, first, last, random_prefixes, random);
    const auto started = std::chrono::steady_clock::now();
    PrefixChecker checker(snap_image, chunk_size);
    for (std::size_t k = 0; k < entries.size(); ++k) {
        ASSERT_TRUE(checker.Apply(log, entries[k])) << "entry " << k;
        if (prefixes.contains(k + 1)) {
            checker.Check();
        }
    }
    const ::testing::AssertionResult result = checker.Finish();
    std::cout << "crash consistency: " << entries.size() << " log entries, " << checker.checked()
              << " prefixes checked (" << checker.with_changes() << " with changed chunks, "
              << checker.recoveries() << " COW store recoveries) in "
              << std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() -
                                                                  started)
                     .count()
              << " s; " << checker.last_changed() << " chunks changed at the last one" << std::endl;
    EXPECT_TRUE(result);

    // The replay is faithful: the whole log gives the disk as it is.
    const ReadBack disk = ReadWholeDevice(kTrackedDisk);
    ASSERT_EQ(disk.error, 0);
    EXPECT_TRUE(SameImage(checker.image(),
                          std::span(disk.bytes).first(kPartitionBytes + kCowStoreBytes), kExtent))
        << "the replayed log against the disk";
    // And the check had something to check.
    EXPECT_GE(checker.checked(), kMinCheckedPrefixes);
    EXPECT_GE(checker.with_changes(), kMinPrefixesWithChanges);
    EXPECT_GE(checker.last_changed(), kMinChangedChunks);
}

}  // namespace
}  // namespace trak::vmtest
