// Reading fields of an ioctl record from the bytes the fake driver kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace trak_test {

// The value of type T at `offset` of a record's bytes.
template <typename T>
T field_at(const std::vector<std::uint8_t>& record, std::size_t offset) {
    T value{};
    std::memcpy(&value, record.data() + offset, sizeof(T));
    return value;
}

// The NUL-terminated string at `offset` of a record's bytes.
inline std::string string_at(const std::vector<std::uint8_t>& record, std::size_t offset) {
    return reinterpret_cast<const char*>(record.data() + offset);
}

}  // namespace trak_test
