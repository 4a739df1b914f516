#include "support/cow_files.h"

#include <sys/stat.h>

#include <cerrno>

#include "support/device_image.h"
#include "support/extent_bits.h"

namespace trak::vmtest {

FileSpace SpaceOf(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        return {errno, 0, 0};
    }
    return {0, static_cast<std::uint64_t>(st.st_size),
            static_cast<std::uint64_t>(st.st_blocks) * 512};
}

MarkedChunks MarkedInCowBitmap(const std::string& path) {
    const ReadBack file = ReadWholeFile(path);
    if (file.error != 0) {
        return {file.error, 0, {}};
    }
    return {0, file.bytes.size(), SetExtents(file.bytes)};
}

}  // namespace trak::vmtest
