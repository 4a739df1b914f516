// The commands of the trak control device, by name and number.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace trak {

// One enumerator per ioctl command; the value is the command's number.
enum class Command : std::uint8_t {
    AddFilterNode = 1,
    AddSnapNode = 2,
    DelNode = 3,
    StartNode = 4,
    StopNode = 5,
    GetDeviceList = 6,
    GetInfo = 7,
    LoadBmp = 8,
    SaveBmp = 9,
    ClrBmp = 10,
    SetBmp = 11,
    MergeBmp = 12,
    GetBmp = 13,
    GetAndClrBmp = 14,
    GetDatablockBmp = 15,
    TestDatablock = 16,
    ResumeSnap = 17,
};

inline constexpr std::array kAllCommands = {
    Command::AddFilterNode, Command::AddSnapNode,  Command::DelNode,
    Command::StartNode,     Command::StopNode,     Command::GetDeviceList,
    Command::GetInfo,       Command::LoadBmp,      Command::SaveBmp,
    Command::ClrBmp,        Command::SetBmp,       Command::MergeBmp,
    Command::GetBmp,        Command::GetAndClrBmp, Command::GetDatablockBmp,
    Command::TestDatablock, Command::ResumeSnap,
};

// The name the driver logs for the command, e.g. "TRAK_GET_INFO".
std::string_view command_name(Command command);

// The ioctl request code of the command.
unsigned long command_code(Command command);

}  // namespace trak
