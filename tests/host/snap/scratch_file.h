// Files in a fresh directory of their own, for the COW store's tests.
#ifndef TRAK_TESTS_HOST_SNAP_SCRATCH_FILE_H
#define TRAK_TESTS_HOST_SNAP_SCRATCH_FILE_H

#include <cstdint>
#include <string>
#include <vector>

namespace trak::snap_test {

class ScratchFiles {
  public:
    ScratchFiles();
    ScratchFiles(const ScratchFiles&) = delete;
    ScratchFiles& operator=(const ScratchFiles&) = delete;
    ~ScratchFiles();

    [[nodiscard]] std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  private:
    std::string dir_;
};

std::vector<std::uint8_t> ReadAll(const std::string& path);
void WriteAll(const std::string& path, const std::vector<std::uint8_t>& bytes);
// Blocks of 512 bytes the file takes on disk (st_blocks).
std::uint64_t AllocatedBlocks(const std::string& path);

}  // namespace trak::snap_test

#endif
