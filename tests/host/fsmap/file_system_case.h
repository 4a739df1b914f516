// A file-system image a parameterised test runs on: how to make it and how
// its own tool reports its allocation map.
#ifndef TRAK_TESTS_HOST_FSMAP_FILE_SYSTEM_CASE_H
#define TRAK_TESTS_HOST_FSMAP_FILE_SYSTEM_CASE_H

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "images.h"
#include "oracles.h"

namespace trak::fsmap_test {

struct FileSystemCase {
    std::string name;
    uint32_t block_size;
    std::function<std::string(const ScratchDir&)> make;
    std::function<BlockMap(const std::string&, uint64_t)> oracle;
};

inline void PrintTo(const FileSystemCase& fs, std::ostream* os) { *os << fs.name; }

// ext2, ext3 or ext4 (`fs_type`) as MakeExtImage makes it, against dumpe2fs.
inline FileSystemCase ExtCase(const std::string& name, const std::string& fs_type,
                              uint32_t block_size, uint64_t image_bytes,
                              const std::string& mkfs_options = "") {
    return {name, block_size,
            [=](const ScratchDir& d) {
                return MakeExtImage(d, fs_type, block_size, image_bytes, 0, mkfs_options);
            },
            [](const std::string& i, uint64_t n) { return DumpE2fs(i, n).used; }};
}

// XFS as MakeXfsImage makes it, against xfs_db.
inline FileSystemCase XfsCase(const std::string& name, const std::string& mkfs_options,
                              uint32_t block_size, unsigned agcount, unsigned files_per_dir,
                              uint64_t image_bytes) {
    return {name, block_size,
            [=](const ScratchDir& d) {
                return MakeXfsImage(d, mkfs_options, block_size, agcount, files_per_dir,
                                    image_bytes);
            },
            [](const std::string& i, uint64_t n) { return XfsDb(i, n).used; }};
}

// An empty ReiserFS with 4 KiB blocks, against debugreiserfs.
inline FileSystemCase ReiserfsCase(const std::string& name, uint64_t image_bytes) {
    return {name, 4096, [=](const ScratchDir& d) { return MakeReiserfsImage(d, image_bytes); },
            [](const std::string& i, uint64_t n) { return DebugReiserfs(i, n).used; }};
}

}  // namespace trak::fsmap_test

#endif
