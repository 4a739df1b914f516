#include "support/node_commands.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace trak::vmtest {
namespace {

int MinorCommand(const ControlDevice& control, unsigned long request, std::int32_t minor) {
    trak_minor_args record{};
    record.minor = minor;
    return control.Ioctl(request, &record);
}

}  // namespace

void CopyField(std::span<char> field, const std::string& text) {
    const std::size_t n = std::min(text.size(), field.size() - 1);
    std::memcpy(field.data(), text.data(), n);
    field[n] = '\0';
}

trak_add_filter_args FilterRecord(const std::string& hdd, std::uint32_t extent_size,
                                  const std::string& bmp_dir, std::int32_t minor) {
    trak_add_filter_args record{};
    CopyField(record.hdd_name, hdd);
    record.minor = minor;
    record.extent_size = extent_size;
    CopyField(record.bmp_dir, bmp_dir);
    return record;
}

int AddFilter(const ControlDevice& control, trak_add_filter_args& record) {
    return control.Ioctl(TRAK_ADD_FILTER_NODE, &record);
}

int StartNode(const ControlDevice& control, std::int32_t minor) {
    return MinorCommand(control, TRAK_START_NODE, minor);
}

int StopNode(const ControlDevice& control, std::int32_t minor) {
    return MinorCommand(control, TRAK_STOP_NODE, minor);
}

int DeleteNode(const ControlDevice& control, std::int32_t minor) {
    return MinorCommand(control, TRAK_DEL_NODE, minor);
}

IoctlOutcome DeleteNodeRaw(const ControlDevice& control, std::int32_t minor) {
    trak_minor_args record{};
    record.minor = minor;
    return control.IoctlRaw(TRAK_DEL_NODE, &record);
}

NodeInfo GetInfo(const ControlDevice& control, std::int32_t minor) {
    NodeInfo result{0, {}};
    result.info.minor = minor;
    result.error = control.Ioctl(TRAK_GET_INFO, &result.info);
    return result;
}

NodeList ListNodes(const ControlDevice& control, std::uint32_t dev_type) {
    trak_device_list_args record{};
    record.dev_type = dev_type;
    NodeList result{control.Ioctl(TRAK_GET_DEVICE_LIST, &record), {}};
    if (result.error == 0) {
        const std::uint32_t count = std::min<std::uint32_t>(record.count, TRAK_MAX_LISTED);
        result.minors.assign(record.minors, record.minors + count);
    }
    return result;
}

std::string NodeDevice(std::int32_t minor) { return "/dev/trak" + std::to_string(minor); }

}  // namespace trak::vmtest
