#include "trakctl_runner.h"

#include <cerrno>
#include <sstream>
#include <system_error>
#include <vector>

namespace trak_test {

TrakctlRunner::TrakctlRunner()
    : backend_{.open_channel =
                   [this](const std::string& path) {
                       opened_.push_back(path);
                       if (!device_present_) {
                           throw std::system_error(ENOENT, std::generic_category(),
                                                   "cannot open the control device " + path);
                       }
                       return driver_.channel();
                   },
               .proc_root = proc_.path(),
               .mounts_file = proc_.path() / "mounts"} {
    proc_.write("chr_major", "100\n");
    proc_.write("blk_major", "101\n");
    proc_.write("debug", "1\n");
    proc_.write("mounts", "proc /proc proc rw 0 0\n");
}

RunResult TrakctlRunner::run(std::initializer_list<std::string_view> args) const {
    return run(std::span<const std::string_view>(args.begin(), args.size()));
}

RunResult TrakctlRunner::run(std::span<const std::string_view> args) const {
    std::ostringstream out;
    std::ostringstream err;
    const int status = trakctl::run(args, backend_, out, err);
    return {status, out.str(), err.str()};
}

}  // namespace trak_test
