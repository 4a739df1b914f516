#include "partition_probe.h"

#include <sstream>
#include <system_error>

#include "raw_file.h"

namespace trakctl {

namespace {

// /proc/self/mounts writes a blank in a path as \040 (and tab, newline and
// backslash likewise in octal).
std::string unescape_mount_field(std::string_view field) {
    std::string text;
    for (std::size_t at = 0; at < field.size(); ++at) {
        if (field[at] == '\\' && at + 3 < field.size()) {
            const auto digit = [&](std::size_t offset) { return field[at + offset] - '0'; };
            text.push_back(static_cast<char>(digit(1) * 64 + digit(2) * 8 + digit(3)));
            at += 3;
        } else {
            text.push_back(field[at]);
        }
    }
    return text;
}

}  // namespace

std::filesystem::path resolved_path(const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::path resolved = std::filesystem::weakly_canonical(path, error);
    return error ? path.lexically_normal() : resolved;
}

std::optional<std::string> mount_point_of(const std::filesystem::path& device,
                                          const std::filesystem::path& mounts_file) {
    const std::filesystem::path wanted = resolved_path(device);
    std::istringstream mounts(read_text_file(mounts_file));
    std::string line;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string source;
        std::string target;
        if (!(fields >> source >> target) || !source.starts_with('/')) {
            continue;
        }
        if (resolved_path(unescape_mount_field(source)) == wanted) {
            return unescape_mount_field(target);
        }
    }
    return std::nullopt;
}

}  // namespace trakctl
