#include "testbed.h"

#include <trak/control.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <system_error>

#include "command.h"
#include "fio.h"

namespace snapbench {

namespace {

constexpr std::uint32_t kExtentSize = 65536;
constexpr const char* kOriginName = "snapbench-origin";
constexpr std::uint64_t kCowStoreSpans = 4;

std::uint64_t sectors_of(const std::string& device) {
    const std::string name = std::filesystem::path(device).filename();
    std::ifstream size("/sys/block/" + name + "/size");
    std::uint64_t sectors = 0;
    if (!(size >> sectors)) {
        throw std::runtime_error("cannot read the size of " + device);
    }
    return sectors;
}

std::filesystem::path make_temp_dir() {
    std::string pattern = "/tmp/snap-bench-cow.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    return pattern;
}

void fill(const std::string& device, std::uint64_t bytes) {
    bench::fill_span(device, {.runtime_s = 0, .span_bytes = bytes});
}

}  // namespace

Testbed::Testbed(const std::filesystem::path& module, std::uint32_t device_gib,
                 std::uint64_t span_bytes) {
    try {
        set_up(module, device_gib, span_bytes);
    } catch (...) {
        tear_down();
        throw;
    }
}

Testbed::~Testbed() { tear_down(); }

void Testbed::set_up(const std::filesystem::path& module, std::uint32_t device_gib,
                     std::uint64_t span_bytes) {
    bench::run_command({"modprobe", "null_blk", "nr_devices=5", "gb=" + std::to_string(device_gib),
                        "bs=4096", "memory_backed=1", "irqmode=0"});
    undo_.emplace_back([] { bench::run_command({"rmmod", "null_blk"}); });
    for (const char* device : {kRawDevice, kOriginBase, kFilteredDisk}) {
        fill(device, span_bytes);
    }
    // A snapshot's COW store takes the span and its own metadata; it lies
    // near the start of the device for dm-snapshot and, on a fresh ext4,
    // mostly near the start for trak's COW files too.
    const std::uint64_t cow_store_bytes =
        std::min(std::uint64_t{device_gib} << 30U, kCowStoreSpans * span_bytes);
    for (const char* device : {kDmCowDevice, kCowFileDisk}) {
        fill(device, cow_store_bytes);
    }

    bench::run_command({"modprobe", "dm-snapshot"});
    bench::run_command(
        {"dmsetup", "create", kOriginName, "--table",
         "0 " + std::to_string(sectors_of(kOriginBase)) + " snapshot-origin " + kOriginBase});
    undo_.emplace_back([] { bench::run_command({"dmsetup", "remove", kOriginName}); });
    // Without udev nothing makes /dev/mapper/NAME but dmsetup itself.
    bench::run_command({"dmsetup", "mknodes", kOriginName});
    origin_ = std::string("/dev/mapper/") + kOriginName;

    make_cow_file_system();
    add_filter(module);
}

void Testbed::make_cow_file_system() {
    bench::run_command({"mkfs.ext4", "-q", "-F", "-E", "nodiscard", kCowFileDisk});
    cow_dir_ = make_temp_dir();
    undo_.emplace_back([dir = cow_dir_] { std::filesystem::remove(dir); });
    bench::run_command({"mount", "-t", "ext4", kCowFileDisk, cow_dir_.string()});
    undo_.emplace_back([dir = cow_dir_] { bench::run_command({"umount", dir.string()}); });
}

void Testbed::add_filter(const std::filesystem::path& module) {
    const std::filesystem::path bitmap_dir = cow_dir_ / "bitmaps";
    std::filesystem::create_directory(bitmap_dir);
    bench::load_module(module);
    undo_.emplace_back([] { bench::run_command({"rmmod", "trak"}); });
    trak::Control control;
    const trak::NodeId node = control.add_filter(
        {.hdd_name = kFilteredDisk, .extent_size = kExtentSize, .bmp_dir = bitmap_dir.string()});
    undo_.emplace_back([minor = node.minor] { trak::Control().del_node(minor); });
    control.start(node.minor);
    undo_.emplace_back([minor = node.minor] { trak::Control().stop(minor); });
    filter_minor_ = node.minor;
    filter_ = "/dev/trak" + std::to_string(node.minor);
}

void Testbed::tear_down() noexcept {
    while (!undo_.empty()) {
        try {
            undo_.back()();
        } catch (const std::exception& error) {
            std::cerr << "snap_bench: clean-up: " << error.what() << '\n';
        }
        undo_.pop_back();
    }
}

}  // namespace snapbench
