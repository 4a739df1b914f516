// A disk whose every write is logged in order on a second disk (a
// device-mapper "log-writes" device), cut into parts by "linear" devices
// over it, so that the writes to all parts land in one ordered log. Marks
// put named points into the log.
#ifndef TRAK_TESTS_VM_SUPPORT_LOGGED_DISK_H_
#define TRAK_TESTS_VM_SUPPORT_LOGGED_DISK_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace trak::vmtest {

class LoggedDisk {
  public:
    // A part of the logged disk: `bytes` bytes from byte `offset` on.
    struct Part {
        std::string name;
        std::uint64_t offset;
        std::uint64_t bytes;
    };

    // Names the devices; nothing is made until Create.
    explicit LoggedDisk(std::string name) : name_(std::move(name)) {}
    // Removes what is left of the devices.
    ~LoggedDisk();
    LoggedDisk(const LoggedDisk&) = delete;
    LoggedDisk& operator=(const LoggedDisk&) = delete;

    // Logs the writes to `disk` on `log_disk` (whose old contents are lost)
    // and makes a linear device "/dev/mapper/<part name>" for each part.
    ::testing::AssertionResult Create(const std::string& disk, const std::string& log_disk,
                                      const std::vector<Part>& parts);
    // Appends the mark `name` to the log.
    ::testing::AssertionResult Mark(const std::string& name) const;
    // Removes the parts and then the log device, which completes the log
    // on the log disk. Nothing may hold the parts open.
    ::testing::AssertionResult Remove();

    // "/dev/mapper/<name>" of a part, or of the logged disk for the name
    // given at construction.
    static std::string Path(const std::string& name) { return "/dev/mapper/" + name; }

  private:
    ::testing::AssertionResult MakeDevice(const std::string& name, const std::string& table);

    std::string name_;
    std::vector<std::string> made_;  // in the order made
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_LOGGED_DISK_H_
