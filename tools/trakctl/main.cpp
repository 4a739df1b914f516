// trakctl: command-line control of the trak driver.
#include <iostream>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "cli.h"
#include "partition_probe.h"

int main(int argc, char** argv) {
    const std::span<char*> argv_span(argv, static_cast<std::size_t>(argc));
    const std::vector<std::string_view> args(argv_span.begin() + 1, argv_span.end());
    const trakctl::Backend backend{
        .open_channel =
            [](const std::string& device_path) {
                return std::make_unique<trak::DeviceChannel>(device_path);
            },
        .proc_root = std::filesystem::path(trak::kDefaultProcRoot),
        .mounts_file = std::filesystem::path(trakctl::kDefaultMountsFile),
    };
    return trakctl::run(args, backend, std::cout, std::cerr);
}
