// Conversions between C++ values and the fixed fields of ioctl records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace trak::detail {

// Copies `value` and a terminating NUL into a fixed char array field.
template <std::size_t N>
// NOLINTNEXTLINE(*-avoid-c-arrays): the records' string fields are C arrays.
void put_string(char (&field)[N], std::string_view value, std::string_view field_name) {
    if (value.size() >= N) {
        throw std::length_error(std::string(field_name) + " is longer than " +
                                std::to_string(N - 1) + " bytes");
    }
    std::memcpy(field, value.data(), value.size());
    field[value.size()] = '\0';
}

// The NUL-terminated string in a fixed char array field; a field without a
// NUL gives all of its bytes.
template <std::size_t N>
// NOLINTNEXTLINE(*-avoid-c-arrays): the records' string fields are C arrays.
std::string get_string(const char (&field)[N]) {
    return {field, ::strnlen(field, N)};
}

// A user address for the 64-bit data fields of the bitmap records.
inline std::uint64_t user_address(const void* data) {
    return reinterpret_cast<std::uintptr_t>(data);
}

// A buffer size for the signed 32-bit size fields.
inline std::int32_t buffer_size(std::size_t size) {
    if (size > static_cast<std::size_t>(INT32_MAX)) {
        throw std::length_error("buffer of " + std::to_string(size) + " bytes is too large");
    }
    return static_cast<std::int32_t>(size);
}

}  // namespace trak::detail
