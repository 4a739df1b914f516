// Typed access to every command of the trak control device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "trak/channel.h"
#include "trak/command.h"
#include "trak/types.h"

namespace trak {

// Bytes of the data-block bitmap of `snap` with one bit per `extent_size`
// bytes, as TRAK_GET_DATABLOCK_BMP writes it.
std::size_t datablock_bitmap_size(const SnapInfo& snap, std::uint32_t extent_size);

// Every call issues one command (the sized-by-query variants issue
// TRAK_GET_INFO first) and throws DriverError when the driver refuses it.
// Strings that do not fit their field in the command's record throw
// std::length_error before anything is sent.
class Control {
  public:
    // Opens the control device; throws std::system_error if that fails.
    explicit Control(const std::string& device_path = std::string(kDefaultControlDevice));
    explicit Control(std::unique_ptr<IoctlChannel> channel);

    NodeId add_filter(const FilterSpec& wanted);
    SnapNode add_snap(const SnapSpec& wanted);
    void del_node(std::int32_t minor);
    void start(std::int32_t minor);
    void stop(std::int32_t minor);
    void resume_snap(const SnapState& state);

    // Minors of all nodes of one type, ascending.
    std::vector<std::int32_t> device_list(DevType type);
    Info info(std::int32_t minor);

    void load_bitmap(std::int32_t minor, BitmapKind kind);
    void save_bitmap(std::int32_t minor, BitmapKind kind);
    void clear_bitmap(std::int32_t minor, BitmapKind kind);
    // Replaces the bitmap by `bits`; empty `bits` throw std::invalid_argument.
    void set_bitmap(std::int32_t minor, BitmapKind kind, std::span<const std::uint8_t> bits);
    // Marks every extent changed.
    void set_bitmap_all(std::int32_t minor, BitmapKind kind);
    // ORs `bits` into the bitmap.
    void merge_bitmap(std::int32_t minor, BitmapKind kind, std::span<const std::uint8_t> bits);
    // Copies the bitmap into `out`, whose size must be the bitmap's.
    void get_bitmap(std::int32_t minor, BitmapKind kind, std::span<std::uint8_t> out);
    std::vector<std::uint8_t> get_bitmap(std::int32_t minor, BitmapKind kind);
    // As get_bitmap, then clears the bitmap.
    void get_and_clear_bitmap(std::int32_t minor, BitmapKind kind, std::span<std::uint8_t> out);
    std::vector<std::uint8_t> get_and_clear_bitmap(std::int32_t minor, BitmapKind kind);

    // Which extents of `extent_size` bytes of a started snap hold file data;
    // returns the number of bytes written into `out`.
    std::size_t datablock_bitmap(std::int32_t minor, std::uint32_t extent_size,
                                 std::span<std::uint8_t> out);
    std::vector<std::uint8_t> datablock_bitmap(std::int32_t minor, std::uint32_t extent_size);

    // Runs the driver's data-block self-test on an unmounted partition.
    void test_datablock(std::string_view hdd_name);

    // Issues any request as it stands; returns the driver's non-negative
    // result or -errno, and never throws.
    int ioctl_raw(unsigned long request, void* arg);

  private:
    template <typename Record>
    void issue(Command command, Record& record);
    std::size_t bitmap_size(std::int32_t minor, BitmapKind kind);

    std::unique_ptr<IoctlChannel> channel_;
};

}  // namespace trak
