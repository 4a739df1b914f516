// A snap's COW files as they lie on disk: the COW bitmap (chunk c is bit
// c & 7 of byte c >> 3, no header) and the COW data file (a sparse image of
// the partition, preserved chunks at their own offsets), and the space the
// data file takes.
#ifndef TRAK_TESTS_VM_SUPPORT_COW_FILES_H_
#define TRAK_TESTS_VM_SUPPORT_COW_FILES_H_

#include <cstdint>
#include <string>
#include <vector>

namespace trak::vmtest {

struct FileSpace {
    int error;                // 0 or the errno of stat(2)
    std::uint64_t size;       // st_size
    std::uint64_t allocated;  // st_blocks * 512
};
FileSpace SpaceOf(const std::string& path);

struct MarkedChunks {
    int error;                          // 0 or the errno of reading the file
    std::uint64_t bytes;                // the file's length
    std::vector<std::uint64_t> chunks;  // ascending
};
// The chunks marked as preserved in the COW bitmap file `path`.
MarkedChunks MarkedInCowBitmap(const std::string& path);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_COW_FILES_H_
