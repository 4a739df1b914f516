// libFuzzer target: the three file-system readers and the data-block bitmap
// of driver/fsmap, through the host compat layer, on partition images
// described as in fuzz_image.h. In the kernel these parse untrusted on-disk
// data; here ASan and UBSan watch them do it.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "captured_log.h"
#include "fuzz_image.h"
#include "trak_env.h"

extern "C" {
#include "blkbmp.h"
}

namespace {

constexpr unsigned kImageMajor = 7;
constexpr unsigned kImageMinor = 3;

// Reads the map of the image, and when a reader accepted it, exports it
// (which asks every chunk whether it holds data).
void ReadMap(block_device* bdev, const trak::fuzz::FuzzImage& image) {
    trak_blkbmp bmp{};
    trak_blkbmp_init(&bmp);
    if (trak_blkbmp_read(&bmp, bdev, image.chunk_size) == 0 && bmp.valid) {
        const int32_t needed = ((bmp.chunks + image.export_k - 1) / image.export_k + 7) / 8;
        std::vector<u64> out((static_cast<size_t>(needed) + 7) / 8 + 1);
        trak_blkbmp_export(&bmp, image.export_k, out.data(), needed);
    }
    trak_blkbmp_destroy(&bmp);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::span<const uint8_t> input(data, size);
    const trak::fuzz::FuzzImage image = trak::fuzz::DecodeHeader(input);
    const int fd = memfd_create("trak-fuzz-image", MFD_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    trak::fuzz::WriteImage(input, image, fd);
    block_device bdev{fd, MKDEV(kImageMajor, kImageMinor), static_cast<loff_t>(image.bytes)};
    ReadMap(&bdev, image);
    close(fd);
    trak::host::TakeLog();
    return 0;
}
