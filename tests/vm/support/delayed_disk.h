// A device-mapper "delay" device over a disk: writes and flushes reach the
// disk only after a delay that can be changed while the device is in use.
// The tests put bitmap directories on one to make the driver's dirty-flag
// writes slow.
#ifndef TRAK_TESTS_VM_SUPPORT_DELAYED_DISK_H_
#define TRAK_TESTS_VM_SUPPORT_DELAYED_DISK_H_

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace trak::vmtest {

class DelayedDisk {
  public:
    // Names the device; nothing is made until Create.
    explicit DelayedDisk(std::string name) : name_(std::move(name)) {}
    // Removes the device if it was made (a file system on it must be
    // unmounted first).
    ~DelayedDisk();
    DelayedDisk(const DelayedDisk&) = delete;
    DelayedDisk& operator=(const DelayedDisk&) = delete;

    // Makes the device over the whole of `disk`, reads undelayed and
    // writes delayed by `write_delay`.
    ::testing::AssertionResult Create(const std::string& disk,
                                      std::chrono::milliseconds write_delay);
    // Replaces the write delay. Writes already queued are let through
    // first.
    ::testing::AssertionResult SetWriteDelay(std::chrono::milliseconds write_delay);

    // "/dev/mapper/<name>".
    [[nodiscard]] std::string path() const;

  private:
    [[nodiscard]] std::string Table(std::chrono::milliseconds write_delay) const;

    std::string name_;
    std::string disk_;
    std::string sectors_;
    bool created_ = false;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_DELAYED_DISK_H_
