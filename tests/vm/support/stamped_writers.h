// Threads that keep writing stamped 4096-byte blocks to a device, each in a
// region of its own, and remember when every write was issued and when it
// completed. A block's stamp names the block, the writer and the writer's
// sequence number of the write, so that any image of the device read later
// tells which version of each block it holds and whether that version may
// be there.
#ifndef TRAK_TESTS_VM_SUPPORT_STAMPED_WRITERS_H_
#define TRAK_TESTS_VM_SUPPORT_STAMPED_WRITERS_H_

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace trak::vmtest {

class StampedWriters {
  public:
    using Clock = std::chrono::steady_clock;

    // `writers` threads over the first `blocks` blocks of `device`.
    StampedWriters(std::string device, std::uint64_t blocks, int writers, std::uint32_t seed);
    // Stops the writers that still run.
    ~StampedWriters();
    StampedWriters(const StampedWriters&) = delete;
    StampedWriters& operator=(const StampedWriters&) = delete;

    // The contents of `blocks` blocks before any writer ran: version 0 of
    // each.
    static std::vector<std::uint8_t> InitialImage(std::uint64_t blocks);

    void Start();
    // Every writer has completed `writes` writes within `timeout` (none
    // failed).
    [[nodiscard]] ::testing::AssertionResult AwaitWrites(int writes, std::chrono::seconds timeout);
    // Lets every writer do `writes` more writes from now, then stops them
    // and waits for them.
    void FinishAfter(int writes);
    // The first write that failed, or "".
    [[nodiscard]] std::string Failure() const;

    // Every block of `image` holds a version that was current at some
    // moment between `asked` and `returned`: no version that completed
    // before `asked` is missing, and no version issued after `returned` is
    // there. Call after FinishAfter.
    [[nodiscard]] ::testing::AssertionResult HoldsVersionsCurrentBetween(
        std::span<const std::uint8_t> image, Clock::time_point asked,
        Clock::time_point returned) const;
    // Every block of `image` holds the last version written to it.
    [[nodiscard]] ::testing::AssertionResult HoldsLastVersions(
        std::span<const std::uint8_t> image) const;

    // Writes completed in all, for the record of a run.
    [[nodiscard]] std::size_t CompletedWrites() const;

  private:
    struct Write {
        std::uint32_t sequence = 0;
        std::uint64_t first_block = 0;
        std::uint32_t blocks = 0;
        Clock::time_point issued;
        Clock::time_point completed;
    };
    // One version of one block: the write that made it (absent: the
    // initial contents).
    struct Version {
        std::uint32_t sequence;
        const Write* write;
    };

    void Run(int writer);
    [[nodiscard]] int Owner(std::uint64_t block) const;
    [[nodiscard]] std::vector<std::vector<Version>> VersionsByBlock() const;

    std::string device_;
    std::uint64_t blocks_;
    int writers_;
    std::uint32_t seed_;
    std::vector<std::thread> threads_;
    std::vector<std::vector<Write>> logs_;  // per writer, touched by its thread until joined

    mutable std::mutex mutex_;
    std::condition_variable progress_;
    std::vector<int> completed_;  // per writer
    std::vector<int> quota_;      // per writer; negative: no limit yet
    std::string failure_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_STAMPED_WRITERS_H_
