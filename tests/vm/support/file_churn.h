// A thread that keeps rewriting a few files of a mounted file system, each
// rewrite a new version with stamped contents, and remembers when each
// version was issued (before the open that truncates the file) and when it
// completed (after the close). A copy of the directory taken at any moment
// (a snapshot mounted elsewhere) can then be checked file by file.
#ifndef TRAK_TESTS_VM_SUPPORT_FILE_CHURN_H_
#define TRAK_TESTS_VM_SUPPORT_FILE_CHURN_H_

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace trak::vmtest {

class FileChurn {
  public:
    using Clock = std::chrono::steady_clock;

    // Rewrites `files` files named c0, c1, ... in the existing `dir`.
    FileChurn(std::string dir, int files);
    // Stops the thread if it still runs.
    ~FileChurn();
    FileChurn(const FileChurn&) = delete;
    FileChurn& operator=(const FileChurn&) = delete;

    void Start();
    // Every file has been written `rounds` times within `timeout`, and no
    // write failed.
    [[nodiscard]] ::testing::AssertionResult AwaitRounds(int rounds, std::chrono::seconds timeout);
    // Stops the thread and waits for it; what failed, if anything.
    [[nodiscard]] ::testing::AssertionResult Stop();

    // Each file of `copy_dir` (the same directory seen in a copy of the
    // file system) is a version that was current at some moment between
    // `asked` and `returned`, or empty while a rewrite that truncated it
    // was in flight then. Call after Stop, for a start asked after
    // AwaitRounds(1) returned.
    [[nodiscard]] ::testing::AssertionResult CopyHoldsVersionsCurrentBetween(
        const std::string& copy_dir, Clock::time_point asked, Clock::time_point returned) const;

  private:
    struct Version {
        std::uint32_t number = 0;
        Clock::time_point issued;
        Clock::time_point completed;
    };

    void Run();

    std::string dir_;
    int files_;
    std::thread thread_;
    std::vector<std::vector<Version>> versions_;  // per file; the thread's until joined

    mutable std::mutex mutex_;
    std::condition_variable progress_;
    int rounds_ = 0;
    bool stop_ = false;
    std::string failure_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_FILE_CHURN_H_
