// One fio measurement of one workload on one block device.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

struct Workload {
    std::string_view name;
    std::string_view rw;  // fio's --rw
    std::uint32_t block_size;
    std::uint32_t queue_depth;
    bool per_op;  // reported as IOPS rather than MiB/s
};

inline constexpr std::array kWorkloads = {
    Workload{"4 KiB random write, QD 1", "randwrite", 4096, 1, true},
    Workload{"4 KiB random write, QD 32", "randwrite", 4096, 32, true},
    Workload{"1 MiB sequential write, QD 1", "write", 1048576, 1, false},
    Workload{"1 MiB sequential write, QD 32", "write", 1048576, 32, false},
};

struct FioSettings {
    std::uint32_t runtime_s;   // of every measurement
    std::uint64_t span_bytes;  // the part of each device written to
};

struct Measurement {
    double iops;
    double mib_per_s;

    // The figure the workload is reported by.
    double figure(const Workload& workload) const { return workload.per_op ? iops : mib_per_s; }
};

// Runs `workload` with O_DIRECT and libaio on `device` for the set time.
Measurement run_fio(const std::string& device, const Workload& workload,
                    const FioSettings& settings);

// Runs `workload` on `device` as run_fio does and returns its figure
// second by second (fio's one-second averages).
std::vector<double> run_fio_per_second(const std::string& device, const Workload& workload,
                                       const FioSettings& settings);

// Writes the span of `device` once, so that no measurement pays for the
// first touch of a memory-backed device's pages.
void fill_span(const std::string& device, const FioSettings& settings);

// One pass of requests of `block_size` bytes at `offsets`, each issued once
// and in that order, so that a pass can touch every chunk of a snapshot
// exactly once.
struct Replay {
    bool reads;
    std::uint32_t block_size;
    std::uint32_t queue_depth;
    std::vector<std::uint64_t> offsets;
};

// Runs `replay` on `device` with O_DIRECT and libaio.
Measurement run_fio_replay(const std::string& device, const Replay& replay);

}  // namespace bench
