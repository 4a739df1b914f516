#include "support/snap_commands.h"

#include "support/node_commands.h"

namespace trak::vmtest {

trak_add_snap_args SnapRecord(std::uint32_t filter_minor, std::uint32_t chunk_size,
                              const std::string& cow_bmp, const std::string& cow_data,
                              std::int32_t snap_minor) {
    trak_add_snap_args record{};
    record.filter_minor = filter_minor;
    record.snap_minor = snap_minor;
    record.chunk_size = chunk_size;
    CopyField(record.cow_bmp_fname, cow_bmp);
    CopyField(record.cow_data_fname, cow_data);
    return record;
}

int AddSnap(const ControlDevice& control, trak_add_snap_args& record) {
    return control.Ioctl(TRAK_ADD_SNAP_NODE, &record);
}

int ResumeSnap(const ControlDevice& control, std::uint32_t snap_minor, const SnapFlags& flags) {
    trak_resume_snap_args record{};
    record.snap_minor = snap_minor;
    record.snap_valid = flags.valid;
    record.stop_pending = flags.stop_pending;
    record.del_pending = flags.del_pending;
    return control.Ioctl(TRAK_RESUME_SNAP, &record);
}

int DatablockCommand(const ControlDevice& control, trak_datablock_bmp_args& record) {
    return control.Ioctl(TRAK_GET_DATABLOCK_BMP, &record);
}

DatablockReply GetDatablockBitmap(const ControlDevice& control, std::uint32_t minor,
                                  std::uint32_t extent_size, std::size_t buffer_size,
                                  std::uint8_t fill) {
    DatablockReply reply{0, static_cast<std::int32_t>(buffer_size),
                         std::vector<std::uint8_t>(buffer_size, fill)};
    trak_datablock_bmp_args record{};
    record.minor = minor;
    record.extent_size = extent_size;
    record.bmp_size = reply.bmp_size;
    record.bmp_data = reinterpret_cast<std::uintptr_t>(reply.bits.data());
    reply.error = DatablockCommand(control, record);
    reply.bmp_size = record.bmp_size;
    return reply;
}

}  // namespace trak::vmtest
