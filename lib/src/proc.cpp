#include "trak/proc.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "file_descriptor.h"

namespace trak {

namespace {

using detail::FileDescriptor;
using detail::throw_errno;

std::string read_entry(const std::filesystem::path& path) {
    const FileDescriptor file(path, O_RDONLY);
    if (file.get() < 0) {
        throw_errno("read", path);
    }
    std::string text;
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t got = ::read(file.get(), chunk.data(), chunk.size());
        if (got < 0) {
            throw_errno("read", path);
        }
        if (got == 0) {
            break;
        }
        text.append(chunk.data(), static_cast<std::size_t>(got));
    }
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

template <typename Number>
Number parse_entry(const std::filesystem::path& path) {
    const std::string text = read_entry(path);
    Number value{};
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc() || ptr != end) {
        throw std::runtime_error("unexpected contents of " + path.string() + ": \"" + text + "\"");
    }
    return value;
}

}  // namespace

ProcTree::ProcTree(std::filesystem::path root) : root_(std::move(root)) {}

int ProcTree::chr_major() const { return parse_entry<int>(root_ / "chr_major"); }

int ProcTree::blk_major() const { return parse_entry<int>(root_ / "blk_major"); }

int ProcTree::debug() const { return parse_entry<int>(root_ / "debug"); }

void ProcTree::set_debug(int level) const {
    const std::filesystem::path path = root_ / "debug";
    const FileDescriptor file(path, O_WRONLY);
    if (file.get() < 0) {
        throw_errno("open", path);
    }
    const std::string text = std::to_string(level) + "\n";
    const ssize_t written = ::write(file.get(), text.data(), text.size());
    if (written < 0) {
        throw_errno("write", path);
    }
    if (static_cast<std::size_t>(written) != text.size()) {
        throw std::runtime_error("short write to " + path.string());
    }
}

std::string ProcTree::node_entry(std::int32_t minor, std::string_view entry) const {
    return read_entry(node_path(minor, entry));
}

std::int64_t ProcTree::node_number(std::int32_t minor, std::string_view entry) const {
    return parse_entry<std::int64_t>(node_path(minor, entry));
}

std::filesystem::path ProcTree::node_path(std::int32_t minor, std::string_view entry) const {
    return root_ / ("trak" + std::to_string(minor)) / entry;
}

}  // namespace trak
