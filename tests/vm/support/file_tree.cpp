#include "support/file_tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <system_error>

#include "support/findings.h"

namespace trak::vmtest {
namespace {

// Differences listed in a failure; the count says how many more.
constexpr int kListed = 10;

// 64-bit FNV-1a of the whole file, and its size.
std::string DescribeFile(const std::filesystem::path& path, int& error) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = errno;
        return {};
    }
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    std::uint64_t size = 0;
    std::array<unsigned char, 65536> buffer{};
    for (;;) {
        const ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            error = errno;
            break;
        }
        if (n == 0) {
            break;
        }
        for (ssize_t i = 0; i < n; ++i) {
            hash = (hash ^ buffer[static_cast<std::size_t>(i)]) * 0x100000001b3ULL;
        }
        size += static_cast<std::uint64_t>(n);
    }
    close(fd);
    std::ostringstream out;
    out << "file " << size << " " << std::hex << std::setw(16) << std::setfill('0') << hash;
    return out.str();
}

}  // namespace

TreeReading ReadTree(const std::string& root, const std::set<std::string>& skip) {
    namespace fs = std::filesystem;
    TreeReading reading{0, {}, {}};
    std::error_code ec;
    fs::recursive_directory_iterator it(root, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        const fs::path relative = fs::relative(it->path(), root);
        if (it.depth() == 0 && skip.contains(relative.string())) {
            it.disable_recursion_pending();
            continue;
        }
        const fs::file_status status = it->symlink_status(ec);
        if (ec) {
            break;
        }
        std::string description;
        if (fs::is_symlink(status)) {
            description = "link " + fs::read_symlink(it->path(), ec).string();
        } else if (fs::is_directory(status)) {
            description = "dir";
        } else {
            int error = 0;
            description = DescribeFile(it->path(), error);
            if (error != 0) {
                ec = std::error_code(error, std::generic_category());
            }
        }
        if (ec) {
            reading.failed = it->path().string();
            break;
        }
        reading.contents[relative.string()] = description;
    }
    if (ec) {
        reading.error = ec.value();
        if (reading.failed.empty()) {
            reading.failed = root;
        }
    }
    return reading;
}

::testing::AssertionResult SameTree(const TreeContents& actual, const TreeContents& expected) {
    Findings differences(kListed);
    for (const auto& [path, description] : expected) {
        const auto found = actual.find(path);
        if (found == actual.end()) {
            differences.Add() << path << ": missing (expected " << description << ")";
        } else if (found->second != description) {
            differences.Add() << path << ": " << found->second << ", expected " << description;
        }
    }
    for (const auto& [path, description] : actual) {
        if (!expected.contains(path)) {
            differences.Add() << path << ": unexpected " << description;
        }
    }
    return differences.Result("of " + std::to_string(expected.size()) + " entries differ");
}

}  // namespace trak::vmtest
