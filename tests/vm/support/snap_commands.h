// Typed forms of the snapshot commands of the control device: add a snap
// node to a filter, resume a snap after a reload, and read a snap's
// data-block map.
#ifndef TRAK_TESTS_VM_SUPPORT_SNAP_COMMANDS_H_
#define TRAK_TESTS_VM_SUPPORT_SNAP_COMMANDS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "support/control_device.h"
#include "trak_ioctl.h"

namespace trak::vmtest {

// An ADD_SNAP_NODE record for the filter `filter_minor`: chunk size, the
// two COW files and the wanted minor (negative: any); uuid and name empty,
// so that the driver chooses them.
trak_add_snap_args SnapRecord(std::uint32_t filter_minor, std::uint32_t chunk_size,
                              const std::string& cow_bmp, const std::string& cow_data,
                              std::int32_t snap_minor = -1);

// Each returns the ioctl's result as ControlDevice::Ioctl does: errno on
// failure, else the (non-negative) value the call returned.
int AddSnap(const ControlDevice& control, trak_add_snap_args& record);

// What RESUME_SNAP restores on the snap besides bringing it into service.
struct SnapFlags {
    std::uint32_t valid = 1;
    std::uint32_t stop_pending = 0;
    std::uint32_t del_pending = 0;
};
int ResumeSnap(const ControlDevice& control, std::uint32_t snap_minor, const SnapFlags& flags = {});

// GET_DATABLOCK_BMP with the record as given; the driver's answer is left
// in `record` (bmp_size is written back only on success).
int DatablockCommand(const ControlDevice& control, trak_datablock_bmp_args& record);

struct DatablockReply {
    int error;                       // as ControlDevice::Ioctl
    std::int32_t bmp_size;           // the record's bmp_size after the call
    std::vector<std::uint8_t> bits;  // the whole buffer passed in
};
// GET_DATABLOCK_BMP of `minor` at `extent_size` into a buffer of
// `buffer_size` bytes, each byte preset to `fill` so that bytes the driver
// did not write can be told apart.
DatablockReply GetDatablockBitmap(const ControlDevice& control, std::uint32_t minor,
                                  std::uint32_t extent_size, std::size_t buffer_size,
                                  std::uint8_t fill = 0);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_SNAP_COMMANDS_H_
