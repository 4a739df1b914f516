#include "images.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace trak::fsmap_test {
namespace {

namespace fs = std::filesystem;

constexpr int kExtDirs = 3;
constexpr int kExtFilesPerDir = 120;
constexpr int kXfsDirsPerAg = 2;
constexpr size_t kExtRemovedFileBytes = size_t{64} * 1024;

void MakeSparseFile(const std::string& path, uint64_t bytes) {
    fs::remove(path);
    std::ofstream(path).close();
    fs::resize_file(path, bytes);
}

// Writes `size` bytes of a non-zero pattern: mkfs skips all-zero blocks.
void WriteFile(const std::string& path, size_t size) {
    std::ofstream(path, std::ios::binary) << std::string(size, '\x5a');
}

}  // namespace

std::string Run(const std::string& command) {
    const std::string wrapped = "{ " + command + "; } 2>&1";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(wrapped.c_str(), "r"), pclose);
    if (!pipe) {
        throw std::runtime_error("cannot run: " + command);
    }
    std::string output;
    std::array<char, 4096> buf{};
    size_t n = 0;
    while ((n = fread(buf.data(), 1, buf.size(), pipe.get())) > 0) {
        output.append(buf.data(), n);
    }
    const int status = pclose(pipe.release());
    if (status != 0) {
        throw std::runtime_error("failed (" + std::to_string(status) + "): " + command + "\n" +
                                 output);
    }
    return output;
}

ScratchDir::ScratchDir() : ScratchDir(fs::temp_directory_path().string()) {}

ScratchDir::ScratchDir(const std::string& base) {
    std::string templ = (fs::path(base) / "trak-fsmap-XXXXXX").string();
    if (mkdtemp(templ.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = templ;
}

ScratchDir::~ScratchDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::string MakeBlankImage(const ScratchDir& dir, const std::string& name, uint64_t bytes) {
    std::string image = dir.File(name);
    MakeSparseFile(image, bytes);
    return image;
}

std::string MakeExtImage(const ScratchDir& dir, const std::string& fs_type, unsigned block_size,
                         uint64_t image_bytes, uint64_t fs_blocks,
                         const std::string& mkfs_options) {
    std::string image = dir.File(fs_type + "-" + std::to_string(block_size) + ".img");
    const std::string tree = dir.File(fs_type + "-tree");
    fs::remove_all(tree);
    std::ostringstream removals;
    for (int d = 0; d < kExtDirs; d++) {
        const std::string sub = "/d" + std::to_string(d);
        fs::create_directories(tree + sub);
        for (int f = 0; f < kExtFilesPerDir; f++) {
            const std::string file = sub + "/f" + std::to_string(f);
            WriteFile(tree + file, static_cast<size_t>(((f * 7) % 23) + 1) * 1024);
            if (f % 2 == 0) {
                removals << "rm " << file << "\n";
            }
        }
    }
    const std::string commands = dir.File(fs_type + "-rm.cmds");
    std::ofstream(commands) << removals.str();

    MakeSparseFile(image, image_bytes);
    Run("mkfs." + fs_type + " -q -F -b " + std::to_string(block_size) + " " + mkfs_options +
        " -d " + tree + " " + image + (fs_blocks != 0 ? " " + std::to_string(fs_blocks) : ""));
    Run("debugfs -w -f " + commands + " " + image + " >/dev/null");
    Run("e2fsck -fn " + image + " >/dev/null");
    return image;
}

std::string MakeHugeExt4Image(const ScratchDir& dir, uint64_t image_bytes) {
    std::string image = dir.File("ext4-huge.img");
    MakeSparseFile(image, image_bytes);
    Run("mkfs.ext4 -q -F -b 4096 -E lazy_itable_init=1,lazy_journal_init=1 " + image);
    return image;
}

std::string MakeExt2ImageWithFile(const ScratchDir& dir, uint64_t image_bytes,
                                  uint64_t file_bytes) {
    std::string image = dir.File("ext2-one-file.img");
    const std::string tree = dir.File("one-file-tree");
    fs::remove_all(tree);
    fs::create_directories(tree);
    if (file_bytes > 0) {
        WriteFile(tree + "/file", file_bytes);
    }
    MakeSparseFile(image, image_bytes);
    Run("mkfs.ext2 -q -F -b 1024 -d " + tree + " " + image);
    return image;
}

std::string MakeEmptyExt2Image(const ScratchDir& dir, uint64_t image_bytes) {
    return MakeExt2ImageWithFile(dir, image_bytes, 0);
}

std::string MakeXfsImage(const ScratchDir& dir, const std::string& mkfs_options,
                         unsigned block_size, unsigned agcount, unsigned files_per_dir,
                         uint64_t image_bytes, uint64_t kept_file_bytes) {
    std::string image = dir.File("xfs-" + std::to_string(block_size) + ".img");
    const std::string freed = dir.File("xfs-freed");
    const std::string kept = dir.File("xfs-kept");
    WriteFile(freed, block_size);
    WriteFile(kept, kept_file_bytes != 0 ? kept_file_bytes : block_size);

    // mkfs.xfs spreads new directories over the groups; their files follow.
    const unsigned dirs = agcount * kXfsDirsPerAg;
    std::ostringstream proto;
    proto << "/dev/null\n0 0\nd--755 0 0\n";
    for (unsigned d = 0; d < dirs; d++) {
        proto << "d" << d << " d--755 0 0\n";
        for (unsigned f = 0; f < files_per_dir; f++) {
            proto << "f" << f << " ---644 0 0 " << (f % 2 == 0 ? freed : kept) << "\n";
        }
        proto << "$\n";
    }
    proto << "$\n";
    const std::string proto_file = dir.File("xfs.proto");
    std::ofstream(proto_file) << proto.str();

    MakeSparseFile(image, image_bytes);
    Run("mkfs.xfs -q -f " + mkfs_options + " -b size=" + std::to_string(block_size) +
        " -d agcount=" + std::to_string(agcount) + " -p " + proto_file + " " + image);

    // Clear the inodes of every other file; xfs_repair then frees their
    // blocks and rebuilds the free-space trees from what is still owned.
    std::ostringstream clears;
    const std::regex entry(R"(^\S+\s+(\d+)\s+regular\s+\S+\s+\S+\s+f(\d+)\b)");
    for (unsigned d = 0; d < dirs; d++) {
        std::istringstream listing(Run("xfs_db -r -c 'ls /d" + std::to_string(d) + "' " + image));
        std::smatch m;
        for (std::string line; std::getline(listing, line);) {
            if (std::regex_search(line, m, entry) && std::stoul(m[2]) % 2 == 0) {
                clears << "inode " << m[1] << "\nwrite -d core.mode 0\n";
            }
        }
    }
    const std::string clear_file = dir.File("xfs-clear.cmds");
    std::ofstream(clear_file) << clears.str();
    Run("xfs_db -x -c 'source " + clear_file + "' " + image + " >/dev/null");
    Run("xfs_repair " + image + " >/dev/null");
    Run("xfs_repair -n " + image + " >/dev/null");
    return image;
}

std::string MakeFilledExtImage(const ScratchDir& dir, const std::string& fs_type,
                               uint64_t image_bytes, unsigned kept_files,
                               uint64_t kept_file_bytes) {
    std::string image = dir.File(fs_type + "-filled.img");
    const std::string kept = dir.File(fs_type + "-kept");
    const std::string removed = dir.File(fs_type + "-removed");
    WriteFile(kept, kept_file_bytes);
    WriteFile(removed, kExtRemovedFileBytes);
    std::ostringstream writes;
    std::ostringstream removals;
    for (unsigned f = 0; f < kept_files; f++) {
        writes << "write " << kept << " k" << f << "\nwrite " << removed << " r" << f << "\n";
        removals << "rm r" << f << "\n";
    }
    const std::string write_file = dir.File(fs_type + "-write.cmds");
    const std::string removal_file = dir.File(fs_type + "-rm.cmds");
    std::ofstream(write_file) << writes.str();
    std::ofstream(removal_file) << removals.str();

    MakeSparseFile(image, image_bytes);
    Run("mkfs." + fs_type + " -q -F -b 4096 " + image);
    Run("debugfs -w -f " + write_file + " " + image + " >/dev/null");
    Run("debugfs -w -f " + removal_file + " " + image + " >/dev/null");
    return image;
}

std::string MakeReiserfsImage(const ScratchDir& dir, uint64_t image_bytes) {
    std::string image = dir.File("reiserfs.img");
    MakeSparseFile(image, image_bytes);
    Run("mkreiserfs -q -f -b 4096 " + image + " >/dev/null");
    return image;
}

std::vector<uint8_t> ReadBytes(const std::string& path, uint64_t offset, size_t count) {
    std::vector<uint8_t> bytes(count);
    std::ifstream in(path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    return bytes;
}

std::string FlipChecksumBit(const std::string& path, uint64_t offset) {
    std::vector<uint8_t> crc = ReadBytes(path, offset, 4);
    const uint32_t right = crc[0] | crc[1] << 8U | crc[2] << 16U | uint32_t{crc[3]} << 24U;
    crc[0] ^= 1U;
    WriteBytes(path, offset, crc);
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "0x%08x instead of 0x%08x", right ^ 1U, right);
    return text.data();
}

void WriteBytes(const std::string& path, uint64_t offset, const std::vector<uint8_t>& bytes) {
    std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(static_cast<std::streamoff>(offset));
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

}  // namespace trak::fsmap_test
