// Whole files of raw bytes, such as a bitmap saved by `bitmap get --output`.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace trakctl {

// All bytes of the file; throws std::system_error when it cannot be read.
std::vector<std::uint8_t> read_raw_file(const std::filesystem::path& path);

// The whole file as text; throws std::system_error when it cannot be read.
std::string read_text_file(const std::filesystem::path& path);

// Creates or truncates the file and writes `bytes` into it; throws
// std::system_error when that fails.
void write_raw_file(const std::filesystem::path& path, std::span<const std::uint8_t> bytes);

}  // namespace trakctl
