// The cost of snapshots: fio on a raw memory-backed null_blk device, on a
// dm-snapshot origin and on a trak filter node, each over its own null_blk
// device. For each chunk size (4 KiB and 64 KiB) and write workload a fresh
// snapshot is taken and written twice: the first pass writes every chunk
// once, so that every write must preserve one; the second rewrites chunks
// already preserved. The filter node without a snap is the anchor for the
// rewrites. Reads of a fresh snapshot (nothing preserved, so everything
// comes from the origin) are compared with reads of the origin. Needs root,
// fio, dmsetup, mkfs.ext4 and the null_blk and dm-snapshot modules: it is
// meant for the test VM (bench/snap/run.sh), where it owns the machine.
//
//   snap_bench [--module PATH] [--repeats N] [--span MIB] [--report FILE]
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fio.h"
#include "options.h"
#include "report.h"
#include "snapshots.h"
#include "table.h"
#include "testbed.h"
#include "workloads.h"

namespace snapbench {
namespace {

constexpr std::uint32_t kDeviceGiB = 1;
constexpr std::array<std::uint32_t, 2> kChunkSizes = {4096, 65536};

struct Options {
    std::filesystem::path module = "driver/trak.ko";
    std::uint32_t repeats = 1;
    std::uint32_t span_mib = 16;
    std::filesystem::path report;
};

Options parse_options(std::span<char*> args) {
    Options options;
    // The VM harness hands the guest's view of the output directory over.
    if (const char* out = std::getenv("TRAK_OUT"); out != nullptr) {
        options.report = std::filesystem::path(out) / "snap-bench.txt";
    }
    bench::parse_option_pairs(
        args,
        {{"--module", [&](std::string_view value) { options.module = value; }},
         {"--repeats",
          [&](std::string_view value) { options.repeats = bench::positive("--repeats", value); }},
         {"--span",
          [&](std::string_view value) { options.span_mib = bench::positive("--span", value); }},
         {"--report", [&](std::string_view value) { options.report = value; }}});
    if (std::uint64_t{options.span_mib} > std::uint64_t{kDeviceGiB} * 1024 / 4) {
        throw std::invalid_argument("--span exceeds a quarter of the devices' " +
                                    std::to_string(kDeviceGiB) +
                                    " GiB: the COW stores are prepared for four spans");
    }
    return options;
}

// What one pass measured, shown as it comes.
double measure(const std::string& device, const bench::Workload& workload,
               const bench::Replay& replay, std::string_view what) {
    const double figure = bench::run_fio_replay(device, replay).figure(workload);
    std::cout << "  " << what << ' ' << device << ": " << bench::figure_text(workload, figure)
              << std::endl;
    return figure;
}

// A first-write figure counts only if every write of the pass had chunks
// to preserve, and preserved them.
void check_every_write_copied(const TrakSnap& snap, const bench::Replay& replay,
                              std::uint32_t chunk_size) {
    const std::uint64_t expected =
        replay.offsets.size() * std::max<std::uint64_t>(1, replay.block_size / chunk_size);
    const std::uint64_t preserved = snap.preserved_chunks();
    std::cout << "  " << snap.device() << " preserved " << preserved << " chunks" << std::endl;
    if (preserved != expected) {
        throw std::runtime_error(snap.device() + " preserved " + std::to_string(preserved) +
                                 " chunks, not the " + std::to_string(expected) +
                                 " that the first writes touched");
    }
}

// The two passes of one write workload on every target, a fresh snapshot
// for each of the two targets that have one.
void measure_writes(const Testbed& testbed, std::uint32_t chunk_size, Row& first, Row& rewrite,
                    const bench::Replay& replay) {
    const bench::Workload& workload = *first.workload;
    const auto both_passes = [&](Target target, const std::string& device) {
        first.figures.at(target).push_back(measure(device, workload, replay, "first write"));
        rewrite.figures.at(target).push_back(measure(device, workload, replay, "rewrite"));
    };
    both_passes(kRaw, Testbed::kRawDevice);
    both_passes(kTrak, testbed.filter());
    {
        const DmSnapshot snapshot(testbed, chunk_size);
        both_passes(kDmSnapshot, testbed.origin());
    }
    {
        const TrakSnap snap(testbed, chunk_size);
        first.figures.at(kTrakSnap).push_back(
            measure(testbed.filter(), workload, replay, "first write"));
        check_every_write_copied(snap, replay, chunk_size);
        rewrite.figures.at(kTrakSnap).push_back(
            measure(testbed.filter(), workload, replay, "rewrite"));
    }
}

// Reads of fresh snapshots and of their origins.
void measure_reads(const Testbed& testbed, std::uint32_t chunk_size, const std::vector<Row*>& rows,
                   std::uint64_t span_bytes, std::mt19937_64& random) {
    const DmSnapshot snapshot(testbed, chunk_size);
    const TrakSnap snap(testbed, chunk_size);
    for (Row* row : rows) {
        const bench::Workload& workload = *row->workload;
        std::cout << workload.name << ", " << chunk_size / 1024 << " KiB chunks:" << std::endl;
        const bench::Replay replay = one_pass(workload, span_bytes, workload.block_size, random);
        row->figures.at(kRaw).push_back(measure(Testbed::kRawDevice, workload, replay, "read"));
        row->figures.at(kDmSnapshot)
            .push_back(measure(snapshot.device(), workload, replay, "read"));
        row->figures.at(kTrakSnap).push_back(measure(snap.device(), workload, replay, "read"));
        row->figures.at(kTrak).push_back(measure(testbed.filter(), workload, replay, "read"));
    }
}

std::vector<Row> empty_rows() {
    std::vector<Row> rows;
    for (const std::uint32_t chunk_size : kChunkSizes) {
        for (const Pass pass : {Pass::kFirstWrite, Pass::kRewrite}) {
            for (const bench::Workload& workload : kWrites) {
                rows.push_back(
                    {.chunk_size = chunk_size, .pass = pass, .workload = &workload, .figures = {}});
            }
        }
        for (const bench::Workload& workload : kReads) {
            rows.push_back({.chunk_size = chunk_size,
                            .pass = Pass::kRead,
                            .workload = &workload,
                            .figures = {}});
        }
    }
    return rows;
}

Row& row_of(std::vector<Row>& rows, std::uint32_t chunk_size, Pass pass,
            const bench::Workload& workload) {
    for (Row& row : rows) {
        if (row.chunk_size == chunk_size && row.pass == pass && row.workload == &workload) {
            return row;
        }
    }
    throw std::logic_error("no row for " + std::string(workload.name));
}

void run(const Options& options) {
    const std::uint64_t span_bytes = std::uint64_t{options.span_mib} << 20U;
    const Testbed testbed(options.module, kDeviceGiB, span_bytes);
    std::cout << "raw " << Testbed::kRawDevice << ", dm-snapshot origin " << testbed.origin()
              << ", trak filter node " << testbed.filter() << std::endl;
    std::mt19937_64 random(std::random_device{}());
    std::vector<Row> rows = empty_rows();
    for (std::uint32_t round = 1; round <= options.repeats; ++round) {
        for (const std::uint32_t chunk_size : kChunkSizes) {
            for (const bench::Workload& workload : kWrites) {
                std::cout << workload.name << ", " << chunk_size / 1024 << " KiB chunks, round "
                          << round << ':' << std::endl;
                measure_writes(testbed, chunk_size,
                               row_of(rows, chunk_size, Pass::kFirstWrite, workload),
                               row_of(rows, chunk_size, Pass::kRewrite, workload),
                               one_pass(workload, span_bytes, chunk_size, random));
            }
            std::vector<Row*> reads;
            reads.reserve(kReads.size());
            for (const bench::Workload& workload : kReads) {
                reads.push_back(&row_of(rows, chunk_size, Pass::kRead, workload));
            }
            measure_reads(testbed, chunk_size, reads, span_bytes, random);
        }
    }
    std::ostringstream report;
    report << "Medians of " << options.repeats << " rounds, one pass each over the first "
           << options.span_mib << " MiB of each device (O_DIRECT, libaio); a write pass "
           << "writes each chunk once:\n";
    print_report(report, rows);
    std::cout << '\n' << report.str();
    if (!options.report.empty()) {
        std::ofstream file(options.report);
        file << report.str();
        if (!file.flush()) {
            throw std::runtime_error("cannot write " + options.report.string());
        }
        std::cout << "\nwritten to " << options.report.string() << '\n';
    }
}

}  // namespace
}  // namespace snapbench

int main(int argc, char** argv) {
    try {
        const std::span<char*> args(argv, static_cast<std::size_t>(argc));
        snapbench::run(snapbench::parse_options(args.subspan(1)));
    } catch (const std::exception& error) {
        std::cerr << "snap_bench: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
