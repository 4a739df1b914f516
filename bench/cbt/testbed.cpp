#include "testbed.h"

#include <trak/control.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <system_error>

#include "command.h"

namespace cbt {

using bench::run_command;

namespace {

constexpr std::uint32_t kExtentSize = 65536;
constexpr std::string_view kLinearName = "cbt-linear";

// The output of a command that prints one word, without its newline.
std::string word_from(const std::vector<std::string>& argv) {
    std::string word = run_command(argv);
    while (!word.empty() && (word.back() == '\n' || word.back() == ' ')) {
        word.pop_back();
    }
    return word;
}

std::filesystem::path make_temp_dir() {
    std::string pattern = "/tmp/cbt-bitmaps.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    return pattern;
}

}  // namespace

Testbed::Testbed(const std::filesystem::path& module, std::uint32_t device_gib,
                 const std::string& bitmap_disk) {
    try {
        set_up(module, device_gib, bitmap_disk);
    } catch (...) {
        tear_down();
        throw;
    }
}

Testbed::~Testbed() { tear_down(); }

void Testbed::set_up(const std::filesystem::path& module, std::uint32_t device_gib,
                     const std::string& bitmap_disk) {
    run_command({"modprobe", "null_blk", "nr_devices=3", "gb=" + std::to_string(device_gib),
                 "bs=4096", "memory_backed=1", "irqmode=0"});
    undo_.emplace_back([] { run_command({"rmmod", "null_blk"}); });
    targets_.push_back({"raw", "/dev/nullb0", false});

    const std::string sectors = word_from({"cat", "/sys/block/nullb1/size"});
    run_command({"dmsetup", "create", std::string(kLinearName), "--table",
                 "0 " + sectors + " linear /dev/nullb1 0"});
    undo_.emplace_back([] { run_command({"dmsetup", "remove", std::string(kLinearName)}); });
    // Without udev there may be no /dev/mapper link: use the kernel's name.
    targets_.push_back({"dm-linear",
                        "/dev/" + word_from({"dmsetup", "info", "-c", "--noheadings", "-o",
                                             "blkdevname", std::string(kLinearName)}),
                        false});

    const std::filesystem::path bitmap_dir = make_temp_dir();
    undo_.emplace_back([bitmap_dir] { std::filesystem::remove(bitmap_dir); });
    run_command({"mkfs.ext4", "-q", "-F", bitmap_disk});
    run_command({"mount", bitmap_disk, bitmap_dir.string()});
    undo_.emplace_back([bitmap_dir] { run_command({"umount", bitmap_dir.string()}); });

    bench::load_module(module);
    undo_.emplace_back([] { run_command({"rmmod", "trak"}); });
    trak::Control control;
    const trak::NodeId node = control.add_filter(
        {.hdd_name = "/dev/nullb2", .extent_size = kExtentSize, .bmp_dir = bitmap_dir.string()});
    undo_.emplace_back([minor = node.minor] { trak::Control().del_node(minor); });
    control.start(node.minor);
    trak_minor_ = node.minor;
    targets_.push_back({"trak", "/dev/trak" + std::to_string(node.minor), true});
}

void Testbed::clear_bitmaps() const {
    trak::Control control;
    control.clear_bitmap(trak_minor_, trak::BitmapKind::Incremental);
    control.clear_bitmap(trak_minor_, trak::BitmapKind::Differential);
}

void Testbed::tear_down() noexcept {
    while (!undo_.empty()) {
        try {
            undo_.back()();
        } catch (const std::exception& error) {
            std::cerr << "cbt_bench: clean-up: " << error.what() << '\n';
        }
        undo_.pop_back();
    }
}

}  // namespace cbt
