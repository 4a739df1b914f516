#include "workloads.h"

#include <algorithm>
#include <stdexcept>

namespace snapbench {

bench::Replay one_pass(const bench::Workload& workload, std::uint64_t span_bytes,
                       std::uint32_t stride, std::mt19937_64& random) {
    const std::uint64_t step = std::max(stride, workload.block_size);
    if (span_bytes < step) {
        throw std::invalid_argument("the span is smaller than one request's step");
    }
    bench::Replay replay{.reads = workload.rw.ends_with("read"),
                         .block_size = workload.block_size,
                         .queue_depth = workload.queue_depth,
                         .offsets = {}};
    replay.offsets.reserve(span_bytes / step);
    for (std::uint64_t offset = 0; offset + workload.block_size <= span_bytes; offset += step) {
        replay.offsets.push_back(offset);
    }
    if (workload.rw.starts_with("rand")) {
        std::shuffle(replay.offsets.begin(), replay.offsets.end(), random);
    }
    return replay;
}

}  // namespace snapbench
