#include "device_files.h"

#include <string>
#include <system_error>

namespace trakctl {

namespace {

std::string device_file(const trak::ProcTree& proc, std::int32_t minor) {
    try {
        return proc.node_entry(minor, "dev_name");
    } catch (const std::system_error&) {
        return {};
    }
}

}  // namespace

void add_device_files(Report& report, const trak::ProcTree& proc, std::int32_t minor) {
    report.push_back({"dev_name", "device file", device_file(proc, minor)});
    report.push_back({"disk", "disk device", "/dev/trak" + std::to_string(minor)});
}

}  // namespace trakctl
