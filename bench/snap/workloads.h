// The workloads of the snapshot benchmark and the order in which a pass
// touches a span.
#pragma once

#include <array>
#include <cstdint>
#include <random>

#include "fio.h"

namespace snapbench {

inline constexpr std::array kWrites = {
    bench::Workload{"4 KiB random write, QD 32", "randwrite", 4096, 32, true},
    bench::Workload{"1 MiB sequential write, QD 8", "write", 1048576, 8, false},
};

inline constexpr std::array kReads = {
    bench::Workload{"4 KiB random read, QD 32", "randread", 4096, 32, true},
    bench::Workload{"1 MiB sequential read, QD 8", "read", 1048576, 8, false},
};

// One pass of `workload` over the first `span_bytes` of a device with one
// request per `stride` bytes (at least the block size): a write pass with
// the chunk size as stride writes every chunk once, so that after a fresh
// snapshot every one of its writes has a chunk to preserve. Random
// workloads visit the offsets in a shuffled order.
bench::Replay one_pass(const bench::Workload& workload, std::uint64_t span_bytes,
                       std::uint32_t stride, std::mt19937_64& random);

}  // namespace snapbench
