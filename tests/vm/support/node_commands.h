// Typed forms of the node commands of the control device: add a filter
// node, start, stop and delete a node, list nodes, describe one.
#ifndef TRAK_TESTS_VM_SUPPORT_NODE_COMMANDS_H_
#define TRAK_TESTS_VM_SUPPORT_NODE_COMMANDS_H_

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "support/control_device.h"
#include "trak_ioctl.h"

namespace trak::vmtest {

// An ADD_FILTER_NODE record: the HDD's device file, the extent size, the
// bitmap directory and the wanted minor (negative: any); uuid and name
// empty, so that the driver chooses them.
trak_add_filter_args FilterRecord(const std::string& hdd, std::uint32_t extent_size,
                                  const std::string& bmp_dir, std::int32_t minor = -1);

// Copies `text` into a fixed string field of a record, always
// NUL-terminated (cut short if it does not fit).
void CopyField(std::span<char> field, const std::string& text);

// Each returns the ioctl's result as ControlDevice::Ioctl does: errno on
// failure, else the (non-negative) value the call returned.
int AddFilter(const ControlDevice& control, trak_add_filter_args& record);
int StartNode(const ControlDevice& control, std::int32_t minor);
int StopNode(const ControlDevice& control, std::int32_t minor);
int DeleteNode(const ControlDevice& control, std::int32_t minor);
// DELETE_NODE as ioctl(2) answers it: its result and errno.
IoctlOutcome DeleteNodeRaw(const ControlDevice& control, std::int32_t minor);

struct NodeInfo {
    int error;
    trak_info_args info;
};
NodeInfo GetInfo(const ControlDevice& control, std::int32_t minor);

struct NodeList {
    int error;
    std::vector<std::int32_t> minors;
};
NodeList ListNodes(const ControlDevice& control, std::uint32_t dev_type);

// The block device of the node with `minor`, as devtmpfs names it.
std::string NodeDevice(std::int32_t minor);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_NODE_COMMANDS_H_
