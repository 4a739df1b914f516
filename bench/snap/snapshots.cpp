#include "snapshots.h"

#include <trak/control.h>
#include <trak/cow_usage.h>

#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "command.h"
#include "testbed.h"

namespace snapbench {

namespace {

constexpr const char* kDmSnapshotName = "snapbench-snap";
constexpr std::uint32_t kSectorSize = 512;

std::uint64_t sectors_of(const std::string& dm_name) {
    const std::string table = bench::run_command({"dmsetup", "table", dm_name});
    // "0 LENGTH TARGET ...": the length is the second field.
    std::istringstream fields(table);
    std::uint64_t start = 0;
    std::uint64_t length = 0;
    if (!(fields >> start >> length)) {
        throw std::runtime_error("cannot read the length of " + dm_name + ": " + table);
    }
    return length;
}

// Clean-up of a destructor: what fails is reported, not thrown.
template <typename Step>
void report_failure(const Step& step) noexcept {
    try {
        step();
    } catch (const std::exception& error) {
        std::cerr << "snap_bench: clean-up: " << error.what() << '\n';
    }
}

}  // namespace

DmSnapshot::DmSnapshot(const Testbed& testbed, std::uint32_t chunk_size) {
    const std::string origin_name = std::filesystem::path(testbed.origin()).filename();
    bench::run_command({"dd", "if=/dev/zero", std::string("of=") + Testbed::kDmCowDevice,
                        "bs=" + std::to_string(chunk_size), "count=1", "oflag=direct",
                        "conv=notrunc", "status=none"});
    // The origin learns its snapshots' chunk size, by which it splits
    // writes, only when it resumes: suspend it around the creation.
    bench::run_command({"dmsetup", "suspend", origin_name});
    try {
        bench::run_command({"dmsetup", "create", kDmSnapshotName, "--table",
                            "0 " + std::to_string(sectors_of(origin_name)) + " snapshot " +
                                Testbed::kOriginBase + ' ' + Testbed::kDmCowDevice + " P " +
                                std::to_string(chunk_size / kSectorSize)});
    } catch (...) {
        report_failure([&] { bench::run_command({"dmsetup", "resume", origin_name}); });
        throw;
    }
    bench::run_command({"dmsetup", "resume", origin_name});
    bench::run_command({"dmsetup", "mknodes", kDmSnapshotName});
    device_ = std::string("/dev/mapper/") + kDmSnapshotName;
}

DmSnapshot::~DmSnapshot() {
    report_failure([] { bench::run_command({"dmsetup", "remove", kDmSnapshotName}); });
}

TrakSnap::TrakSnap(const Testbed& testbed, std::uint32_t chunk_size)
    : bitmap_file_(testbed.cow_dir() / "snap.cow-bitmap"),
      data_file_(testbed.cow_dir() / "snap.cow-data") {
    trak::Control control;
    const trak::SnapNode node = control.add_snap({.filter_minor = testbed.filter_minor(),
                                                  .chunk_size = chunk_size,
                                                  .cow_bmp_fname = bitmap_file_.string(),
                                                  .cow_data_fname = data_file_.string()});
    minor_ = node.id.minor;
    if (node.chunk_size != chunk_size) {
        report_failure([this] { trak::Control().del_node(minor_); });
        throw std::runtime_error("the driver raised the chunk size to " +
                                 std::to_string(node.chunk_size));
    }
    try {
        control.start(minor_);
    } catch (...) {
        report_failure([this] { trak::Control().del_node(minor_); });
        throw;
    }
    device_ = "/dev/trak" + std::to_string(minor_);
}

std::uint64_t TrakSnap::preserved_chunks() const {
    const trak::Info info = trak::Control().info(minor_);
    if (!info.snap || !info.snap->snap_valid) {
        throw std::runtime_error(device_ + " is not a valid snap any more");
    }
    return trak::cow_usage(*info.snap, info.dev_size).chunks;
}

TrakSnap::~TrakSnap() {
    report_failure([this] {
        trak::Control control;
        control.stop(minor_);
        control.del_node(minor_);
    });
    // Deleting the node removes its files; should that have failed, the next
    // snap must still start from empty ones.
    std::error_code ignored;
    std::filesystem::remove(bitmap_file_, ignored);
    std::filesystem::remove(data_file_, ignored);
}

}  // namespace snapbench
