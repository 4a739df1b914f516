// File-system images made at test time by the real mkfs tools, and the
// small file operations the tests need on them.
#ifndef TRAK_TESTS_HOST_FSMAP_IMAGES_H
#define TRAK_TESTS_HOST_FSMAP_IMAGES_H

#include <cstdint>
#include <string>
#include <vector>

namespace trak::fsmap_test {

// Runs a shell command and returns its standard output; throws when it fails.
std::string Run(const std::string& command);

// A fresh directory under /tmp, removed with its contents on destruction.
class ScratchDir {
  public:
    ScratchDir();
    // Under `base` instead of the temporary directory.
    explicit ScratchDir(const std::string& base);
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    ~ScratchDir();
    [[nodiscard]] std::string File(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// A sparse image of `bytes` bytes holding no file system.
std::string MakeBlankImage(const ScratchDir& dir, const std::string& name, uint64_t bytes);

// ext2 or ext3 (`fs_type`), filled with files of which every other one is then
// removed (debugfs), so that used and free blocks alternate in every group.
// `fs_blocks` limits the file system to fewer blocks than the image holds (0:
// the whole image); `mkfs_options` are passed to mkfs as they are.
std::string MakeExtImage(const ScratchDir& dir, const std::string& fs_type, unsigned block_size,
                         uint64_t image_bytes, uint64_t fs_blocks = 0,
                         const std::string& mkfs_options = "");

// A default ext4 with 4 KiB blocks over a sparse image of `image_bytes`,
// empty, its inode tables and journal left unwritten so that an image of
// more than 16 TiB stays small and is made in a second. The directory must
// be on a file system that takes such files (/tmp's ext4 stops at 16 TiB).
std::string MakeHugeExt4Image(const ScratchDir& dir, uint64_t image_bytes);

// ext2 with 1 KiB blocks over the whole image, holding one file of
// `file_bytes` (0: none).
std::string MakeExt2ImageWithFile(const ScratchDir& dir, uint64_t image_bytes, uint64_t file_bytes);

// Empty ext2 with 1 KiB blocks over the whole image.
std::string MakeEmptyExt2Image(const ScratchDir& dir, uint64_t image_bytes);

// mkfs.xfs options for the two on-disk versions: 4 (its free-space trees
// are "ABTB", read with 512-byte sectors) and 5, today's default ("AB3B").
inline constexpr const char* kXfsV4 = "-m crc=0 -s size=512";
inline constexpr const char* kXfsV5 = "-m crc=1";

// XFS made with `mkfs_options`, with `agcount` allocation groups, filled with
// files of which every other one is freed (inode cleared, then xfs_repair),
// so that each group's by-block tree holds many free extents. The freed
// files take one block, the kept ones `kept_file_bytes` (0: one block).
std::string MakeXfsImage(const ScratchDir& dir, const std::string& mkfs_options,
                         unsigned block_size, unsigned agcount, unsigned files_per_dir,
                         uint64_t image_bytes, uint64_t kept_file_bytes = 0);

// ext3 or ext4 (`fs_type`, mkfs's defaults) with 4 KiB blocks over the whole
// image, written with debugfs: `kept_files` files of `kept_file_bytes`, each
// followed by a small file that is then removed again.
std::string MakeFilledExtImage(const ScratchDir& dir, const std::string& fs_type,
                               uint64_t image_bytes, unsigned kept_files, uint64_t kept_file_bytes);

// Empty ReiserFS 3.6 with 4 KiB blocks.
std::string MakeReiserfsImage(const ScratchDir& dir, uint64_t image_bytes);

std::vector<uint8_t> ReadBytes(const std::string& path, uint64_t offset, size_t count);
// Flips the lowest bit of the little-endian 32-bit checksum at `offset` and
// returns what a reader then logs: "0x<flipped> instead of 0x<right>".
std::string FlipChecksumBit(const std::string& path, uint64_t offset);
void WriteBytes(const std::string& path, uint64_t offset, const std::vector<uint8_t>& bytes);

}  // namespace trak::fsmap_test

#endif
