// A snapshot for the length of one measurement: of the dm-snapshot origin,
// or a started snap node on the trak filter node. Each starts with nothing
// preserved and is gone, with its COW store, when the object is.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace snapbench {

class Testbed;

// A persistent dm-snapshot of the testbed's origin with `chunk_size`-byte
// chunks; the COW device's header is zeroed first, so that the store is
// new rather than the last one's.
class DmSnapshot {
  public:
    DmSnapshot(const Testbed& testbed, std::uint32_t chunk_size);
    DmSnapshot(const DmSnapshot&) = delete;
    DmSnapshot& operator=(const DmSnapshot&) = delete;
    DmSnapshot(DmSnapshot&&) = delete;
    DmSnapshot& operator=(DmSnapshot&&) = delete;
    ~DmSnapshot();

    // The snapshot's own (read-write) device.
    const std::string& device() const { return device_; }

  private:
    std::string device_;
};

// A snap node with `chunk_size`-byte chunks on the testbed's filter node,
// started, its COW files in the testbed's COW directory.
class TrakSnap {
  public:
    TrakSnap(const Testbed& testbed, std::uint32_t chunk_size);
    TrakSnap(const TrakSnap&) = delete;
    TrakSnap& operator=(const TrakSnap&) = delete;
    TrakSnap(TrakSnap&&) = delete;
    TrakSnap& operator=(TrakSnap&&) = delete;
    ~TrakSnap();

    // The snap node's (read-only) device.
    const std::string& device() const { return device_; }

    // The chunks its COW bitmap marks as preserved; throws when the snap
    // has become invalid, since a failed copy is no measurement of copying.
    std::uint64_t preserved_chunks() const;

  private:
    std::int32_t minor_ = -1;
    std::string device_;
    std::filesystem::path bitmap_file_;
    std::filesystem::path data_file_;
};

}  // namespace snapbench
