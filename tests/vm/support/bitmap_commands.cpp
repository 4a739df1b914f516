#include "support/bitmap_commands.h"

namespace trak::vmtest {
namespace {

std::uint32_t Code(BitmapKind kind) { return static_cast<std::uint32_t>(kind); }

BitmapReply ReadOut(const ControlDevice& control, unsigned long request, std::uint32_t minor,
                    BitmapKind kind, std::size_t size) {
    BitmapReply reply{0, std::vector<std::uint8_t>(size, 0)};
    reply.error =
        BitmapDataCommand(control, request, minor, Code(kind), static_cast<std::int32_t>(size),
                          reinterpret_cast<std::uintptr_t>(reply.bits.data()));
    return reply;
}

}  // namespace

const char* KindName(BitmapKind kind) {
    return kind == BitmapKind::kIncremental ? "Incremental" : "Differential";
}

int BitmapDataCommand(const ControlDevice& control, unsigned long request, std::uint32_t minor,
                      std::uint32_t kind, std::int32_t size, std::uintptr_t data) {
    trak_bmp_data_args record{};
    record.minor = minor;
    record.kind = kind;
    record.size = size;
    record.data = data;
    return control.Ioctl(request, &record);
}

int BitmapCommand(const ControlDevice& control, unsigned long request, std::uint32_t minor,
                  std::uint32_t kind) {
    trak_bmp_args record{};
    record.minor = minor;
    record.kind = kind;
    return control.Ioctl(request, &record);
}

BitmapReply GetBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind,
                      std::size_t size) {
    return ReadOut(control, TRAK_GET_BMP, minor, kind, size);
}

BitmapReply GetAndClearBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind,
                              std::size_t size) {
    return ReadOut(control, TRAK_GET_AND_CLR_BMP, minor, kind, size);
}

int SetBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind,
              std::span<const std::uint8_t> bits) {
    return BitmapDataCommand(control, TRAK_SET_BMP, minor, Code(kind),
                             static_cast<std::int32_t>(bits.size()),
                             reinterpret_cast<std::uintptr_t>(bits.data()));
}

int SetWholeBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind) {
    return BitmapDataCommand(control, TRAK_SET_BMP, minor, Code(kind), 0, 0);
}

int MergeBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind,
                std::span<const std::uint8_t> bits) {
    return BitmapDataCommand(control, TRAK_MERGE_BMP, minor, Code(kind),
                             static_cast<std::int32_t>(bits.size()),
                             reinterpret_cast<std::uintptr_t>(bits.data()));
}

int ClearBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind) {
    return BitmapCommand(control, TRAK_CLR_BMP, minor, Code(kind));
}

int LoadBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind) {
    return BitmapCommand(control, TRAK_LOAD_BMP, minor, Code(kind));
}

int SaveBitmap(const ControlDevice& control, std::uint32_t minor, BitmapKind kind) {
    return BitmapCommand(control, TRAK_SAVE_BMP, minor, Code(kind));
}

}  // namespace trak::vmtest
