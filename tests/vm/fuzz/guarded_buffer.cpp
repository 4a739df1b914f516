#include "fuzz/guarded_buffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace trak::vmtest {
namespace {

std::size_t PageSize() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

}  // namespace

GuardedBuffer::GuardedBuffer(std::size_t bytes)
    : size_((bytes + PageSize() - 1) / PageSize() * PageSize()) {
    void* map = mmap(nullptr, size_ + PageSize(), PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    base_ = static_cast<std::uint8_t*>(map);
    if (mprotect(base_ + size_, PageSize(), PROT_NONE) != 0) {
        throw std::system_error(errno, std::generic_category(), "mprotect");
    }
}

GuardedBuffer::~GuardedBuffer() { munmap(base_, size_ + PageSize()); }

std::uint8_t* GuardedBuffer::Tail(std::size_t bytes) const {
    return base_ + size_ - (bytes < size_ ? bytes : size_);
}

std::uintptr_t GuardedBuffer::Guard() const {
    return reinterpret_cast<std::uintptr_t>(base_ + size_);
}

}  // namespace trak::vmtest
