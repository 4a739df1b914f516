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

}  // namespace trak::fsmap_test

#endif
