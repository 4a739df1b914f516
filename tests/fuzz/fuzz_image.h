// The file-system fuzzer's input: a partition image written as its size and
// its non-zero sectors, so that an image of hundreds of MiB made by mkfs
// fits in a few hundred KiB, and a mutation of the input is a mutation of
// the on-disk structures.
//
// Layout (little-endian):
//   u32 sectors     image size in 512-byte sectors, taken modulo
//                   kMaxImageSectors (0 means the largest)
//   u8  chunk_shift chunk size 4096 << (chunk_shift % 5)
//   u8  export_k    chunks per bit of the export, 1 + export_k % 8
//   u16 unused
//   then records of u32 sector (modulo the size) and 512 bytes of data;
//   a short last record is padded with zeros.
#ifndef TRAK_TESTS_FUZZ_FUZZ_IMAGE_H
#define TRAK_TESTS_FUZZ_FUZZ_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace trak::fuzz {

inline constexpr uint32_t kSectorBytes = 512;
// 512 MiB: larger than the images the seeds are made from.
inline constexpr uint32_t kMaxImageSectors = 1U << 20;
inline constexpr size_t kHeaderBytes = 8;
inline constexpr size_t kRecordBytes = 4 + kSectorBytes;

struct FuzzImage {
    uint64_t bytes;
    uint32_t chunk_size;
    int32_t export_k;
};

// Reads the header of `input` (missing bytes count as zero).
FuzzImage DecodeHeader(std::span<const uint8_t> input);

// Writes the image that `input` describes into `fd` (a fresh, empty file),
// sparse where the input gives no sector.
void WriteImage(std::span<const uint8_t> input, const FuzzImage& image, int fd);

// The input that describes the image file at `path`, with a 4 KiB chunk
// and an export of one chunk per bit.
std::vector<uint8_t> EncodeImageFile(const std::string& path);

}  // namespace trak::fuzz

#endif
