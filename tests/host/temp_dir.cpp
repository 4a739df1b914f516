#include "temp_dir.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace trak_test {

namespace {

std::filesystem::path make_temp_dir() {
    std::string pattern = "/tmp/trak-host-test.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    return pattern;
}

}  // namespace

TempDir::TempDir() : path_(make_temp_dir()) {}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void TempDir::write(const std::filesystem::path& relative, std::string_view text) const {
    const std::filesystem::path file = path_ / relative;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

std::string TempDir::read(const std::filesystem::path& relative) const {
    std::ifstream in(path_ / relative, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace trak_test
