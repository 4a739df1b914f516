#include "trak/command.h"

#include <trak_ioctl.h>

namespace trak {

namespace {

struct CommandEntry {
    std::string_view name;
    unsigned long code;
};

// Indexed by command number - 1.
constexpr std::array<CommandEntry, kAllCommands.size()> kCommandTable = {{
    {"TRAK_ADD_FILTER_NODE", TRAK_ADD_FILTER_NODE},
    {"TRAK_ADD_SNAP_NODE", TRAK_ADD_SNAP_NODE},
    {"TRAK_DEL_NODE", TRAK_DEL_NODE},
    {"TRAK_START_NODE", TRAK_START_NODE},
    {"TRAK_STOP_NODE", TRAK_STOP_NODE},
    {"TRAK_GET_DEVICE_LIST", TRAK_GET_DEVICE_LIST},
    {"TRAK_GET_INFO", TRAK_GET_INFO},
    {"TRAK_LOAD_BMP", TRAK_LOAD_BMP},
    {"TRAK_SAVE_BMP", TRAK_SAVE_BMP},
    {"TRAK_CLR_BMP", TRAK_CLR_BMP},
    {"TRAK_SET_BMP", TRAK_SET_BMP},
    {"TRAK_MERGE_BMP", TRAK_MERGE_BMP},
    {"TRAK_GET_BMP", TRAK_GET_BMP},
    {"TRAK_GET_AND_CLR_BMP", TRAK_GET_AND_CLR_BMP},
    {"TRAK_GET_DATABLOCK_BMP", TRAK_GET_DATABLOCK_BMP},
    {"TRAK_TEST_DATABLOCK", TRAK_TEST_DATABLOCK},
    {"TRAK_RESUME_SNAP", TRAK_RESUME_SNAP},
}};

const CommandEntry& entry(Command command) {
    return kCommandTable.at(static_cast<std::size_t>(command) - 1);
}

}  // namespace

std::string_view command_name(Command command) { return entry(command).name; }

unsigned long command_code(Command command) { return entry(command).code; }

}  // namespace trak
