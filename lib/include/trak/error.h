// Failures of control-device commands, with the driver's meaning of each.
#pragma once

#include <string>
#include <system_error>

#include "trak/command.h"

namespace trak {

// How a failure came back from the driver: as an errno (the ioctl returned
// -1), or as a positive return value (TRAK_DEL_NODE answers an unknown minor
// with 22).
enum class FailureKind : std::uint8_t { Errno, PositiveReturn };

// "EBUSY" for EBUSY; "errno N" for a number that has no name.
std::string errno_name(int errnum);

// What the driver means when `command` fails with `value`, e.g. "the node is
// already started" for TRAK_START_NODE and EALREADY.
std::string failure_meaning(Command command, int value, FailureKind kind);

// A command that the driver refused. what() reads, for example:
//   TRAK_START_NODE failed: EALREADY (the node is already started). See the
//   kernel log (dmesg) for the driver's message.
class DriverError : public std::system_error {
  public:
    DriverError(Command command, int value, FailureKind kind);

    Command command() const noexcept { return command_; }
    // The errno, or the positive value the driver returned.
    int value() const noexcept { return value_; }
    FailureKind kind() const noexcept { return kind_; }
    // "EALREADY", or "+22" for a positive return.
    const std::string& code_name() const noexcept { return code_name_; }
    const std::string& meaning() const noexcept { return meaning_; }
    const char* what() const noexcept override { return message_.c_str(); }

  private:
    Command command_;
    int value_;
    FailureKind kind_;
    std::string code_name_;
    std::string meaning_;
    std::string message_;
};

}  // namespace trak
