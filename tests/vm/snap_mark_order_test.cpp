// No write reaches a chunk of the partition before the chunk's mark in the
// COW bitmap file is durable. The COW store's disk delays every write by
// 2 s, so that a mark written to the bitmap file stays undurable for that
// long: a second write into the same chunk, issued while the first one's
// mark is on its way to the disk, must wait for it like the first write,
// not overtake it. Had it overtaken, a power failure in between would
// leave a changed chunk that the resumed snap reads from the partition.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/command.h"
#include "support/cow_files.h"
#include "support/device_image.h"
#include "support/image_writes.h"
#include "support/kernel_module.h"
#include "support/module_test.h"
#include "support/node_commands.h"
#include "support/open_file.h"
#include "support/raw_disk.h"
#include "support/snap_test.h"

namespace trak::vmtest {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kChunk = 65536;
constexpr std::uint64_t kHddBytes = 16 << 20;
constexpr std::uint64_t kStoreBytes = 64 << 20;
constexpr std::uint64_t kChunkWritten = 37;
constexpr const char* kSlowStore = "/mnt/trak-cow-slow";
constexpr const char* kSlowName = "trak-slow-cow";
constexpr std::chrono::milliseconds kStoreDelay{2000};
constexpr std::chrono::seconds kTimeout{60};

class SnapMarkOrderTest : public SnapTest {
  protected:
    // The driver closes the COW files at its unload; the delay device can
    // go once its file system is unmounted.
    void TearDown() override {
        if (ModuleLoaded(kDriverModule)) {
            EXPECT_EQ(UnloadDriver(), 0) << "unloading the driver";
        }
        if (!store_loop_.empty()) {
            EXPECT_EQ(Unmount(kSlowStore), 0) << "unmounting " << kSlowStore;
        }
        SnapTest::TearDown();
    }

    // An ext4 for COW files on a device-mapper delay device whose writes
    // are not delayed yet.
    void MountSlowStore() {
        store_loop_ = AttachLoop(kStoreBytes, 512);
        ASSERT_FALSE(store_loop_.empty());
        const std::string device = CreateMappedDevice(kSlowName, Table(0));
        ASSERT_FALSE(device.empty());
        ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", device}));
        ASSERT_EQ(Mount(device, kSlowStore, "ext4"), 0);
    }

    [[nodiscard]] bool DelayStoreWrites() const {
        return ReplaceMappedTable(kSlowName,
                                  Table(static_cast<std::uint64_t>(kStoreDelay.count())));
    }
    [[nodiscard]] bool UndelayStoreWrites() const {
        return ReplaceMappedTable(kSlowName, Table(0));
    }

  private:
    [[nodiscard]] std::string Table(std::uint64_t write_delay_ms) const {
        return "0 " + std::to_string(kStoreBytes / 512) + " delay " + store_loop_ + " 0 0 " +
               store_loop_ + " 0 " + std::to_string(write_delay_ms) + "\n";
    }

    std::string store_loop_;
};

// When the write returned, or the errno that failed it.
struct WriteDone {
    int error;
    Clock::time_point at;
};

std::future<WriteDone> WriteInBackground(std::uint64_t offset, std::uint32_t seed) {
    return std::async(std::launch::async, [offset, seed] {
        const DirectWriter origin(NodeDevice(0));
        const int error =
            origin.error() != 0 ? origin.error() : origin.Write(offset, RandomBytes(4096, seed));
        return WriteDone{error, Clock::now()};
    });
}

// Whether the COW bitmap file, as any reader sees it, marks `chunk`.
bool MarkShows(const std::string& bitmap, std::uint64_t chunk) {
    const OpenFile file(bitmap, O_RDONLY);
    std::uint8_t byte = 0;
    return file.error() == 0 && pread(file.fd(), &byte, 1, static_cast<off_t>(chunk / 8)) == 1 &&
           (byte & (1U << (chunk % 8))) != 0;
}

TEST_F(SnapMarkOrderTest, ASecondWriteIntoAChunkWaitsUntilItsMarkIsDurable) {
    ASSERT_NO_FATAL_FAILURE(MountSlowStore());
    std::vector<std::uint8_t> image = RandomBytes(kHddBytes, 91);
    const std::string hdd = AttachLoopHolding(image);
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1, kSlowStore));
    const std::vector<std::uint8_t> at_start = image;
    ASSERT_TRUE(DelayStoreWrites());

    std::future<WriteDone> first = WriteInBackground(kChunkWritten * kChunk, 92);
    const Clock::time_point deadline = Clock::now() + kTimeout;
    while (!MarkShows(CowBitmapPath(1, kSlowStore), kChunkWritten) && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(MarkShows(CowBitmapPath(1, kSlowStore), kChunkWritten))
        << "the first write's chunk never showed in the COW bitmap file";
    std::future<WriteDone> second = WriteInBackground(kChunkWritten * kChunk + kChunk / 2, 93);

    ASSERT_EQ(first.wait_for(kTimeout), std::future_status::ready) << "the first write hangs";
    ASSERT_EQ(second.wait_for(kTimeout), std::future_status::ready) << "the second write hangs";
    const WriteDone first_done = first.get();
    const WriteDone second_done = second.get();
    ASSERT_EQ(first_done.error, 0);
    ASSERT_EQ(second_done.error, 0);
    // Both wait for the same durable mark; they are released together.
    const auto ahead =
        std::chrono::duration_cast<std::chrono::milliseconds>(first_done.at - second_done.at);
    RecordProperty("second_write_ahead_ms", std::to_string(ahead.count()));
    EXPECT_LT(ahead.count(), kStoreDelay.count() / 4)
        << "the second write completed " << ahead.count()
        << " ms before the first: it did not wait for the chunk's mark to be durable";

    ASSERT_TRUE(UndelayStoreWrites());
    const ReadBack snap = ReadWholeDevice(NodeDevice(1));
    ASSERT_EQ(snap.error, 0);
    EXPECT_TRUE(SameImage(snap.bytes, at_start, kChunk)) << "the snap";
}

}  // namespace
}  // namespace trak::vmtest
