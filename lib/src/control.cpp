#include "trak/control.h"

#include <trak_ioctl.h>

#include <algorithm>
#include <stdexcept>

#include "record_fields.h"
#include "trak/error.h"

namespace trak {

using detail::buffer_size;
using detail::get_string;
using detail::put_string;
using detail::user_address;

namespace {

FilterInfo filter_info(const trak_info_args& rec) {
    const std::size_t snaps = std::min<std::size_t>(rec.snap_cnt, TRAK_MAX_LISTED);
    const std::span<const std::int32_t> minors(rec.snap_minors, snaps);
    return FilterInfo{
        .hdd_name = get_string(rec.hdd_name),
        .extent_size = rec.extent_size,
        .extent_cnt = rec.extent_cnt,
        .snap_minors = {minors.begin(), minors.end()},
        .incr_bmp_size = rec.incr_bmp_size,
        .diff_bmp_size = rec.diff_bmp_size,
        .incr_bmp_fname = get_string(rec.incr_bmp_fname),
        .diff_bmp_fname = get_string(rec.diff_bmp_fname),
        .incr_bmp_clear = rec.incr_bmp_clear != 0,
        .diff_bmp_clear = rec.diff_bmp_clear != 0,
        .incr_bmp_full = rec.incr_bmp_full != 0,
        .diff_bmp_full = rec.diff_bmp_full != 0,
    };
}

SnapInfo snap_info(const trak_info_args& rec) {
    return SnapInfo{
        .snap_valid = rec.snap_valid != 0,
        .stop_pending = rec.stop_pending != 0,
        .del_pending = rec.del_pending != 0,
        .chunk_size = rec.chunk_size,
        .cow_chunks = rec.cow_chunks,
        .cow_bmp_size = rec.cow_bmp_size,
        .cow_data_size = rec.cow_data_size,
        .cow_bmp_fname = get_string(rec.cow_bmp_fname),
        .cow_data_fname = get_string(rec.cow_data_fname),
    };
}

trak_bmp_args bmp_args(std::int32_t minor, BitmapKind kind) {
    return {.minor = static_cast<std::uint32_t>(minor), .kind = static_cast<std::uint32_t>(kind)};
}

trak_bmp_data_args bmp_data_args(std::int32_t minor, BitmapKind kind, const void* data,
                                 std::size_t size) {
    return {.minor = static_cast<std::uint32_t>(minor),
            .kind = static_cast<std::uint32_t>(kind),
            .size = buffer_size(size),
            .pad = 0,
            .data = user_address(data)};
}

}  // namespace

std::size_t datablock_bitmap_size(const SnapInfo& snap, std::uint32_t extent_size) {
    const std::uint64_t per_extent =
        snap.chunk_size == 0 ? 1 : std::max<std::uint64_t>(extent_size / snap.chunk_size, 1);
    const std::uint64_t extents = (std::uint64_t{snap.cow_chunks} + per_extent - 1) / per_extent;
    return (extents + 7) / 8;
}

Control::Control(const std::string& device_path)
    : channel_(std::make_unique<DeviceChannel>(device_path)) {}

Control::Control(std::unique_ptr<IoctlChannel> channel) : channel_(std::move(channel)) {}

int Control::ioctl_raw(unsigned long request, void* arg) { return channel_->ioctl(request, arg); }

template <typename Record>
void Control::issue(Command command, Record& record) {
    const int result = channel_->ioctl(command_code(command), &record);
    if (result < 0) {
        throw DriverError(command, -result, FailureKind::Errno);
    }
    if (result > 0) {
        throw DriverError(command, result, FailureKind::PositiveReturn);
    }
}

NodeId Control::add_filter(const FilterSpec& wanted) {
    trak_add_filter_args rec{};
    put_string(rec.hdd_name, wanted.hdd_name, "hdd_name");
    rec.minor = wanted.minor;
    rec.extent_size = wanted.extent_size;
    put_string(rec.bmp_dir, wanted.bmp_dir, "bmp_dir");
    put_string(rec.uuid, wanted.uuid, "uuid");
    put_string(rec.name, wanted.name, "name");
    issue(Command::AddFilterNode, rec);
    return {.minor = rec.minor, .uuid = get_string(rec.uuid), .name = get_string(rec.name)};
}

SnapNode Control::add_snap(const SnapSpec& wanted) {
    trak_add_snap_args rec{};
    rec.filter_minor = static_cast<std::uint32_t>(wanted.filter_minor);
    rec.snap_minor = wanted.snap_minor;
    rec.chunk_size = wanted.chunk_size;
    put_string(rec.cow_bmp_fname, wanted.cow_bmp_fname, "cow_bmp_fname");
    put_string(rec.cow_data_fname, wanted.cow_data_fname, "cow_data_fname");
    put_string(rec.uuid, wanted.uuid, "uuid");
    put_string(rec.name, wanted.name, "name");
    issue(Command::AddSnapNode, rec);
    return {
        .id = {.minor = rec.snap_minor, .uuid = get_string(rec.uuid), .name = get_string(rec.name)},
        .chunk_size = rec.chunk_size};
}

void Control::del_node(std::int32_t minor) {
    trak_minor_args rec{.minor = minor};
    issue(Command::DelNode, rec);
}

void Control::start(std::int32_t minor) {
    trak_minor_args rec{.minor = minor};
    issue(Command::StartNode, rec);
}

void Control::stop(std::int32_t minor) {
    trak_minor_args rec{.minor = minor};
    issue(Command::StopNode, rec);
}

void Control::resume_snap(const SnapState& state) {
    trak_resume_snap_args rec{.snap_minor = static_cast<std::uint32_t>(state.snap_minor),
                              .snap_valid = state.snap_valid ? 1U : 0U,
                              .stop_pending = state.stop_pending ? 1U : 0U,
                              .del_pending = state.del_pending ? 1U : 0U};
    issue(Command::ResumeSnap, rec);
}

std::vector<std::int32_t> Control::device_list(DevType type) {
    trak_device_list_args rec{};
    rec.dev_type = static_cast<std::uint32_t>(type);
    issue(Command::GetDeviceList, rec);
    const std::span<const std::int32_t> minors(rec.minors,
                                               std::min<std::size_t>(rec.count, TRAK_MAX_LISTED));
    return {minors.begin(), minors.end()};
}

Info Control::info(std::int32_t minor) {
    trak_info_args rec{};
    rec.minor = minor;
    issue(Command::GetInfo, rec);
    Info info{
        .minor = rec.minor,
        .dev_type = static_cast<DevType>(rec.dev_type),
        .dev_size = rec.dev_size,
        .started = rec.started != 0,
        .use_cnt = rec.use_cnt,
        .uuid = get_string(rec.uuid),
        .name = get_string(rec.name),
        .filter = std::nullopt,
        .snap = std::nullopt,
    };
    if (info.dev_type == DevType::Filter) {
        info.filter = filter_info(rec);
    } else if (info.dev_type == DevType::Snap) {
        info.snap = snap_info(rec);
    }
    return info;
}

void Control::load_bitmap(std::int32_t minor, BitmapKind kind) {
    trak_bmp_args rec = bmp_args(minor, kind);
    issue(Command::LoadBmp, rec);
}

void Control::save_bitmap(std::int32_t minor, BitmapKind kind) {
    trak_bmp_args rec = bmp_args(minor, kind);
    issue(Command::SaveBmp, rec);
}

void Control::clear_bitmap(std::int32_t minor, BitmapKind kind) {
    trak_bmp_args rec = bmp_args(minor, kind);
    issue(Command::ClrBmp, rec);
}

void Control::set_bitmap(std::int32_t minor, BitmapKind kind, std::span<const std::uint8_t> bits) {
    if (bits.empty()) {
        // The driver reads an empty bitmap without an address as "all set".
        throw std::invalid_argument("set_bitmap: empty bitmap (set_bitmap_all sets every bit)");
    }
    trak_bmp_data_args rec = bmp_data_args(minor, kind, bits.data(), bits.size());
    issue(Command::SetBmp, rec);
}

void Control::set_bitmap_all(std::int32_t minor, BitmapKind kind) {
    trak_bmp_data_args rec = bmp_data_args(minor, kind, nullptr, 0);
    issue(Command::SetBmp, rec);
}

void Control::merge_bitmap(std::int32_t minor, BitmapKind kind,
                           std::span<const std::uint8_t> bits) {
    trak_bmp_data_args rec = bmp_data_args(minor, kind, bits.data(), bits.size());
    issue(Command::MergeBmp, rec);
}

void Control::get_bitmap(std::int32_t minor, BitmapKind kind, std::span<std::uint8_t> out) {
    trak_bmp_data_args rec = bmp_data_args(minor, kind, out.data(), out.size());
    issue(Command::GetBmp, rec);
}

std::vector<std::uint8_t> Control::get_bitmap(std::int32_t minor, BitmapKind kind) {
    std::vector<std::uint8_t> bits(bitmap_size(minor, kind));
    get_bitmap(minor, kind, bits);
    return bits;
}

void Control::get_and_clear_bitmap(std::int32_t minor, BitmapKind kind,
                                   std::span<std::uint8_t> out) {
    trak_bmp_data_args rec = bmp_data_args(minor, kind, out.data(), out.size());
    issue(Command::GetAndClrBmp, rec);
}

std::vector<std::uint8_t> Control::get_and_clear_bitmap(std::int32_t minor, BitmapKind kind) {
    std::vector<std::uint8_t> bits(bitmap_size(minor, kind));
    get_and_clear_bitmap(minor, kind, bits);
    return bits;
}

std::size_t Control::bitmap_size(std::int32_t minor, BitmapKind kind) {
    const Info node = info(minor);
    if (!node.filter) {
        // Let the driver say why: it refuses bitmaps of nodes that are not filters.
        return 0;
    }
    return kind == BitmapKind::Incremental ? node.filter->incr_bmp_size
                                           : node.filter->diff_bmp_size;
}

std::size_t Control::datablock_bitmap(std::int32_t minor, std::uint32_t extent_size,
                                      std::span<std::uint8_t> out) {
    trak_datablock_bmp_args rec{.minor = static_cast<std::uint32_t>(minor),
                                .extent_size = extent_size,
                                .bmp_size = buffer_size(out.size()),
                                .pad = 0,
                                .bmp_data = user_address(out.data())};
    issue(Command::GetDatablockBmp, rec);
    return static_cast<std::size_t>(rec.bmp_size);
}

std::vector<std::uint8_t> Control::datablock_bitmap(std::int32_t minor, std::uint32_t extent_size) {
    const Info node = info(minor);
    std::vector<std::uint8_t> bits(node.snap ? datablock_bitmap_size(*node.snap, extent_size) : 0);
    bits.resize(datablock_bitmap(minor, extent_size, bits));
    return bits;
}

void Control::test_datablock(std::string_view hdd_name) {
    trak_test_datablock_args rec{};
    put_string(rec.hdd_name, hdd_name, "hdd_name");
    issue(Command::TestDatablock, rec);
}

}  // namespace trak
