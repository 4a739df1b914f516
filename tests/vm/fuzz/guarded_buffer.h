// Memory followed by an inaccessible page: a kernel that reads or writes
// past the end of what it was given faults instead of touching other data.
#ifndef TRAK_TESTS_VM_FUZZ_GUARDED_BUFFER_H_
#define TRAK_TESTS_VM_FUZZ_GUARDED_BUFFER_H_

#include <cstddef>
#include <cstdint>

namespace trak::vmtest {

class GuardedBuffer {
  public:
    // At least `bytes` bytes, rounded up to whole pages.
    explicit GuardedBuffer(std::size_t bytes);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    // The last `bytes` bytes before the guard page.
    [[nodiscard]] std::uint8_t* Tail(std::size_t bytes) const;
    // The first byte of the guard page.
    [[nodiscard]] std::uintptr_t Guard() const;
    [[nodiscard]] std::size_t size() const { return size_; }

  private:
    std::uint8_t* base_ = nullptr;
    std::size_t size_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_FUZZ_GUARDED_BUFFER_H_
