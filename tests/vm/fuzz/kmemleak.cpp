#include "fuzz/kmemleak.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace trak::vmtest {
namespace {

constexpr const char* kControl = "/sys/kernel/debug/kmemleak";

void Command(const std::string& command) {
    std::ofstream control(kControl);
    control << command << std::flush;
    if (!control) {
        throw std::runtime_error(std::string("writing '") + command + "' to " + kControl);
    }
}

std::string Reports() {
    std::ifstream control(kControl);
    std::ostringstream text;
    text << control.rdbuf();
    return text.str();
}

}  // namespace

bool Kmemleak::Available() { return std::filesystem::exists(kControl); }

void Kmemleak::Forget() {
    Command("scan");
    Command("clear");
}

std::string Kmemleak::NewLeaks() {
    Command("scan");
    return Reports();
}

}  // namespace trak::vmtest
