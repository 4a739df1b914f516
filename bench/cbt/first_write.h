// The latency of single writes, for the first write after a save, which
// waits for the bitmap files' dirty marks on a trak node.
#pragma once

#include <cstdint>
#include <string>

namespace cbt {

struct WritePair {
    double first_ms;  // the first write through a new open of the device
    double next_ms;   // the write right after it, elsewhere
};

// Opens `device` with O_DIRECT and times two 4 KiB writes, at `first` and
// at `next` (byte offsets, 4 KiB aligned), one after the other.
WritePair time_write_pair(const std::string& device, std::uint64_t first, std::uint64_t next);

}  // namespace cbt
