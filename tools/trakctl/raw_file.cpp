#include "raw_file.h"

#include <fcntl.h>
#include <trak/file_descriptor.h>
#include <unistd.h>

#include <array>

namespace trakctl {

std::vector<std::uint8_t> read_raw_file(const std::filesystem::path& path) {
    const trak::FileDescriptor file = trak::open_file(path, O_RDONLY, "read");
    std::vector<std::uint8_t> bytes;
    std::array<std::uint8_t, 65536> chunk{};
    for (;;) {
        const ssize_t got = ::read(file.get(), chunk.data(), chunk.size());
        if (got < 0) {
            trak::throw_errno("read", path);
        }
        if (got == 0) {
            return bytes;
        }
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + got);
    }
}

std::string read_text_file(const std::filesystem::path& path) {
    const std::vector<std::uint8_t> bytes = read_raw_file(path);
    return {bytes.begin(), bytes.end()};
}

void write_raw_file(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) {
    const trak::FileDescriptor file = trak::open_file(path, O_WRONLY | O_CREAT | O_TRUNC, "write");
    while (!bytes.empty()) {
        const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
        if (written < 0) {
            trak::throw_errno("write", path);
        }
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
}

}  // namespace trakctl
