// A seeded random caller of the control device: every command code, valid
// and made-up codes, records of the right and of wrong sizes, at good and
// bad addresses, with minors, kinds, sizes and paths chosen to reach both
// the checks and the work behind them. The same seed gives the same calls.
#ifndef TRAK_TESTS_VM_FUZZ_IOCTL_FUZZER_H_
#define TRAK_TESTS_VM_FUZZ_IOCTL_FUZZER_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "fuzz/guarded_buffer.h"
#include "support/control_device.h"

namespace trak::vmtest {

// What the calls may name: block devices to filter, directories for the
// bitmap files, and odd paths (not block devices, not directories, too
// long, dangling, looping).
struct FuzzPaths {
    std::vector<std::string> devices;
    std::vector<std::string> directories;
    std::vector<std::string> odd;
};

class IoctlFuzzer {
  public:
    IoctlFuzzer(std::uint64_t seed, const ControlDevice& control, FuzzPaths paths);

    // Makes one call.
    void Step();

    // How many calls ended with each errno (0: success).
    [[nodiscard]] const std::map<int, std::uint64_t>& outcomes() const { return outcomes_; }

  private:
    unsigned long PickCode();
    std::int32_t PickMinor();
    std::uint32_t PickKind();
    std::int32_t PickSize();
    std::uint64_t PickUserAddress();
    std::uint32_t PickExtentSize();
    // Writes a path into the field of `capacity` bytes at `field`: a good
    // or odd one, empty, unterminated or filling the field exactly.
    void FillPath(char* field, std::size_t capacity);
    void FillText(char* field, std::size_t capacity);
    // Fills the record at `record` of `size` bytes for `code`, fields first
    // when `code` is a known command, random bytes otherwise.
    void FillRecord(unsigned long code, std::uint8_t* record, std::size_t size);
    bool Chance(unsigned percent);
    template <typename T>
    const T& PickFrom(const std::vector<T>& items);

    std::mt19937_64 random_;
    const ControlDevice& control_;
    FuzzPaths paths_;
    // Records are read from the end of a page whose successor is
    // inaccessible, so that every byte past the record faults.
    GuardedBuffer record_page_;
    // Bitmaps handed in and out: larger than any node's bitmap here.
    GuardedBuffer data_;
    std::map<int, std::uint64_t> outcomes_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_FUZZ_IOCTL_FUZZER_H_
