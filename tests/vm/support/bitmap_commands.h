// Typed forms of the seven bitmap commands of the control device.
#ifndef TRAK_TESTS_VM_SUPPORT_BITMAP_COMMANDS_H_
#define TRAK_TESTS_VM_SUPPORT_BITMAP_COMMANDS_H_

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "support/control_device.h"
#include "trak_ioctl.h"

namespace trak::vmtest {

enum class BitmapKind : std::uint32_t {
    kDifferential = TRAK_BMP_DIFF,
    kIncremental = TRAK_BMP_INCR
};

// The kinds in the order the tests visit them.
inline constexpr std::array<BitmapKind, 2> kBothKinds = {BitmapKind::kIncremental,
                                                         BitmapKind::kDifferential};

// The driver's name of a kind in its messages.
const char* KindName(BitmapKind kind);

struct BitmapReply {
    int error;  // as ControlDevice::Ioctl
    std::vector<std::uint8_t> bits;
};

// GET_BMP and GET_AND_CLR_BMP into a buffer of `size` bytes.
BitmapReply GetBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind,
                      std::size_t size);
BitmapReply GetAndClearBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind,
                              std::size_t size);

int SetBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind,
              std::span<const std::uint8_t> bits);
// SET_BMP with size 0 and no data: every bit.
int SetWholeBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind);
int MergeBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind,
                std::span<const std::uint8_t> bits);
int ClearBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind);
int LoadBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind);
int SaveBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind);

// One data-record command with every field as given, for the checks of
// the record itself.
int BitmapDataCommand(const ControlDevice& control, unsigned long request, std::uint32_t minor,
                      std::uint32_t kind, std::int32_t size, std::uintptr_t data);
// One short-record command (LOAD, SAVE, CLR) with a raw kind.
int BitmapCommand(const ControlDevice& control, unsigned long request, std::uint32_t minor,
                  std::uint32_t kind);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_BITMAP_COMMANDS_H_
