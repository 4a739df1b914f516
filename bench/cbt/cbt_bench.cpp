// The cost of change tracking: fio write workloads on a raw memory-backed
// null_blk device, on dm-linear over one and on a started trak filter node
// over one, run side by side. Every workload runs on the three targets in
// turn, --repeats times; the table shows the medians and their ratios to the
// raw device.
//
// Two more tables show the cost of the held first write: the first write
// after a save that left a bitmap file clean waits until the file is marked
// dirty on disk. Each workload runs again for a few seconds right after the
// trak node's bitmaps were cleared (which saves both files clean), and the
// first second's figure is set against the seconds after it; the other
// targets show what the first second costs without tracking. And single
// 4 KiB writes are timed: the first after the clear, then the next one.
//
// Needs root, fio, dmsetup, mkfs.ext4, the null_blk module and a disk for
// the bitmap files, which it formats: it is meant for the test VM
// (bench/cbt/run.sh), where it owns the machine.
//
//   cbt_bench --bitmap-disk PATH [--module PATH] [--runtime SECONDS]
//             [--repeats N] [--span MIB]
#include <cstdint>
#include <exception>
#include <iomanip>
#include <iostream>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fio.h"
#include "first_write.h"
#include "options.h"
#include "table.h"
#include "testbed.h"

// The fio runner and the table come from the benchmarks' shared library.
namespace cbt {
using namespace bench;
}  // namespace cbt

namespace {

constexpr std::uint32_t kDeviceGiB = 1;
// Of each run of the second table: its first second, then the steady ones.
constexpr std::uint32_t kStartRuntimeSeconds = 5;

struct Options {
    std::filesystem::path module = "driver/trak.ko";
    std::string bitmap_disk;
    std::uint32_t runtime_s = 8;
    std::uint32_t repeats = 3;
    std::uint32_t span_mib = 256;
};

Options parse_options(std::span<char*> args) {
    Options options;
    bench::parse_option_pairs(
        args,
        {{"--module", [&](std::string_view value) { options.module = value; }},
         {"--bitmap-disk", [&](std::string_view value) { options.bitmap_disk = value; }},
         {"--runtime",
          [&](std::string_view value) { options.runtime_s = bench::positive("--runtime", value); }},
         {"--repeats",
          [&](std::string_view value) { options.repeats = bench::positive("--repeats", value); }},
         {"--span",
          [&](std::string_view value) { options.span_mib = bench::positive("--span", value); }}});
    // The disk is made into a new ext4: it has no default, so that no run
    // can wipe a disk nobody named.
    if (options.bitmap_disk.empty()) {
        throw std::invalid_argument("--bitmap-disk is required (its contents are destroyed)");
    }
    if (std::uint64_t{options.span_mib} > std::uint64_t{kDeviceGiB} * 1024) {
        throw std::invalid_argument("--span exceeds the devices' " + std::to_string(kDeviceGiB) +
                                    " GiB");
    }
    return options;
}

// Every target's figures of one workload, `repeats` rounds of one run each.
cbt::Row measure(const cbt::Workload& workload, const std::vector<cbt::Target>& targets,
                 const Options& options, const cbt::FioSettings& settings) {
    std::vector<std::vector<double>> figures(targets.size());
    for (std::uint32_t round = 1; round <= options.repeats; ++round) {
        std::cout << workload.name << ", round " << round << ':';
        // Each round starts with another target, so that none always runs first.
        for (std::size_t turn = 0; turn < targets.size(); ++turn) {
            const std::size_t i = (turn + round - 1) % targets.size();
            const double figure =
                cbt::run_fio(targets[i].device, workload, settings).figure(workload);
            figures[i].push_back(figure);
            std::cout << ' ' << targets[i].name << ' ' << std::fixed << std::setprecision(1)
                      << figure;
        }
        std::cout << (workload.per_op ? " IOPS" : " MiB/s") << std::endl;
    }
    cbt::Row row{.workload = &workload, .figures = {}};
    row.figures.reserve(figures.size());
    for (const std::vector<double>& values : figures) {
        row.figures.push_back(cbt::median(values));
    }
    return row;
}

// Every target's first second and steady figures of one workload, each run
// starting right after the trak node's bitmap files were saved clean.
cbt::StartRow measure_start(const cbt::Workload& workload, const cbt::Testbed& testbed,
                            const Options& options, const cbt::FioSettings& settings) {
    const std::vector<cbt::Target>& targets = testbed.targets();
    std::vector<std::vector<double>> firsts(targets.size());
    std::vector<std::vector<double>> steadies(targets.size());
    for (std::uint32_t round = 1; round <= options.repeats; ++round) {
        std::cout << workload.name << ", start, round " << round << ':';
        for (std::size_t turn = 0; turn < targets.size(); ++turn) {
            const std::size_t i = (turn + round - 1) % targets.size();
            if (targets[i].tracked) {
                testbed.clear_bitmaps();
            }
            const std::vector<double> seconds =
                cbt::run_fio_per_second(targets[i].device, workload, settings);
            if (seconds.size() < 2) {
                throw std::runtime_error("fio logged " + std::to_string(seconds.size()) +
                                         " seconds of " + std::string(workload.name));
            }
            double rest = 0;
            for (std::size_t s = 1; s < seconds.size(); ++s) {
                rest += seconds[s];
            }
            firsts[i].push_back(seconds.front());
            steadies[i].push_back(rest / static_cast<double>(seconds.size() - 1));
            std::cout << ' ' << targets[i].name << ' ' << std::fixed << std::setprecision(1)
                      << firsts[i].back() << '/' << steadies[i].back();
        }
        std::cout << (workload.per_op ? " IOPS" : " MiB/s") << std::endl;
    }
    cbt::StartRow row{.workload = &workload, .first = {}, .steady = {}};
    for (std::size_t i = 0; i < targets.size(); ++i) {
        row.first.push_back(cbt::median(firsts[i]));
        row.steady.push_back(cbt::median(steadies[i]));
    }
    return row;
}

// Every target's median latency of the first write after the trak node's
// bitmaps were cleared, and of the write after it, into `first` and `next`.
void measure_first_writes(const cbt::Testbed& testbed, const Options& options,
                          std::vector<double>& first, std::vector<double>& next) {
    constexpr std::uint32_t kRounds = 15;
    constexpr std::uint64_t kStride = std::uint64_t{1} << 20U;
    const std::vector<cbt::Target>& targets = testbed.targets();
    std::vector<std::vector<double>> firsts(targets.size());
    std::vector<std::vector<double>> nexts(targets.size());
    const std::uint64_t slots = (std::uint64_t{options.span_mib} << 20U) / kStride;
    for (std::uint32_t round = 0; round < kRounds; ++round) {
        for (std::size_t i = 0; i < targets.size(); ++i) {
            if (targets[i].tracked) {
                testbed.clear_bitmaps();
            }
            const std::uint64_t at = (2 * std::uint64_t{round} % slots) * kStride;
            const cbt::WritePair pair = cbt::time_write_pair(targets[i].device, at, at + kStride);
            firsts[i].push_back(pair.first_ms);
            nexts[i].push_back(pair.next_ms);
        }
    }
    for (std::size_t i = 0; i < targets.size(); ++i) {
        first.push_back(cbt::median(firsts[i]));
        next.push_back(cbt::median(nexts[i]));
    }
}

void run(const Options& options) {
    const cbt::FioSettings settings{.runtime_s = options.runtime_s,
                                    .span_bytes = std::uint64_t{options.span_mib} << 20U};
    const cbt::Testbed testbed(options.module, kDeviceGiB, options.bitmap_disk);
    std::vector<std::string> names;
    names.reserve(testbed.targets().size());
    for (const cbt::Target& target : testbed.targets()) {
        std::cout << "target " << target.name << ": " << target.device << std::endl;
        cbt::fill_span(target.device, settings);
        names.push_back(target.name);
    }
    std::vector<cbt::Row> rows;
    rows.reserve(cbt::kWorkloads.size());
    for (const cbt::Workload& workload : cbt::kWorkloads) {
        rows.push_back(measure(workload, testbed.targets(), options, settings));
    }
    std::cout << "\nMedians of " << options.repeats << " runs of " << options.runtime_s
              << " s each over the first " << options.span_mib
              << " MiB of each device (O_DIRECT, libaio):\n";
    cbt::print_table(std::cout, names, rows);

    const cbt::FioSettings start_settings{.runtime_s = kStartRuntimeSeconds,
                                          .span_bytes = settings.span_bytes};
    std::vector<cbt::StartRow> starts;
    starts.reserve(cbt::kWorkloads.size());
    for (const cbt::Workload& workload : cbt::kWorkloads) {
        starts.push_back(measure_start(workload, testbed, options, start_settings));
    }
    std::cout << "\nFirst second after the trak node's bitmap files were saved clean, and"
              << " the seconds after it (medians of " << options.repeats << " runs of "
              << kStartRuntimeSeconds << " s):\n";
    cbt::print_start_table(std::cout, names, starts);

    std::vector<double> first_ms;
    std::vector<double> next_ms;
    measure_first_writes(testbed, options, first_ms, next_ms);
    std::cout << "\nOne 4 KiB write right after the trak node's bitmap files were saved clean,"
              << " then the next one (medians of 15):\n";
    cbt::print_latency_table(std::cout, names, first_ms, next_ms);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::span<char*> args(argv, static_cast<std::size_t>(argc));
        run(parse_options(args.subspan(1)));
    } catch (const std::exception& error) {
        std::cerr << "cbt_bench: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
