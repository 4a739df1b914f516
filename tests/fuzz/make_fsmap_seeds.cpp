// Writes the file-system fuzzer's seed inputs into a directory: ext2, ext3,
// ext4 (defaults, and without 64bit and metadata_csum), XFS versions 4 and
// 5 and ReiserFS images
// made by the real mkfs tools, with used and free blocks mixed, encoded as
// in fuzz_image.h.
//
//   make_fsmap_seeds DIR
#include <cstdint>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_image.h"
#include "images.h"

namespace {

using trak::fsmap_test::ScratchDir;

constexpr uint64_t kMiB = uint64_t{1} << 20;

struct Seed {
    std::string name;
    std::function<std::string(const ScratchDir&)> make;
};

std::vector<Seed> Seeds() {
    using namespace trak::fsmap_test;
    return {
        {"ext2-1k-empty", [](const ScratchDir& d) { return MakeEmptyExt2Image(d, 8 * kMiB); }},
        {"ext2-1k-file",
         [](const ScratchDir& d) { return MakeExt2ImageWithFile(d, 16 * kMiB, 256 * 1024); }},
        {"ext3-4k-filled",
         [](const ScratchDir& d) {
             return MakeFilledExtImage(d, "ext3", 32 * kMiB, 3, 64 * 1024);
         }},
        // mkfs.ext4's defaults: 64bit, flex_bg, metadata_csum, uninitialised groups.
        {"ext4-4k-filled",
         [](const ScratchDir& d) {
             return MakeFilledExtImage(d, "ext4", 32 * kMiB, 3, 64 * 1024);
         }},
        {"ext4-flexbg",
         [](const ScratchDir& d) {
             return MakeExtImage(d, "ext4", 1024, 24 * kMiB, 0, "-O ^64bit,^metadata_csum");
         }},
        {"xfs-v4-1k",
         [](const ScratchDir& d) { return MakeXfsImage(d, kXfsV4, 1024, 4, 8, 320 * kMiB); }},
        {"xfs-v5-4k",
         [](const ScratchDir& d) { return MakeXfsImage(d, kXfsV5, 4096, 4, 8, 320 * kMiB); }},
        {"reiserfs-4k", [](const ScratchDir& d) { return MakeReiserfsImage(d, 64 * kMiB); }},
    };
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " DIR\n";
        return 2;
    }
    const std::string out = argv[1];
    try {
        for (const Seed& seed : Seeds()) {
            const ScratchDir dir;
            const std::vector<uint8_t> input = trak::fuzz::EncodeImageFile(seed.make(dir));
            std::ofstream(out + "/" + seed.name, std::ios::binary)
                .write(reinterpret_cast<const char*>(input.data()),
                       static_cast<std::streamsize>(input.size()));
        }
    } catch (const std::exception& e) {
        std::cerr << argv[0] << ": " << e.what() << "\n";
        return 1;
    }
    return 0;
}
