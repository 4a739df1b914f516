#include "scratch_file.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace trak::snap_test {

namespace fs = std::filesystem;

ScratchFiles::ScratchFiles() {
    std::string templ = (fs::temp_directory_path() / "trak-snap-XXXXXX").string();
    if (mkdtemp(templ.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    dir_ = templ;
}

ScratchFiles::~ScratchFiles() {
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

std::vector<std::uint8_t> ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteAll(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::uint64_t AllocatedBlocks(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        throw std::runtime_error("cannot stat " + path);
    }
    return static_cast<std::uint64_t>(st.st_blocks);
}

}  // namespace trak::snap_test
