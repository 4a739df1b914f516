#include "trak/error.h"

#include <cstring>

namespace trak {

std::string errno_name(int errnum) {
    const char* name = strerrorname_np(errnum);
    return name != nullptr ? std::string(name) : "errno " + std::to_string(errnum);
}

namespace {

std::string code_name_of(int value, FailureKind kind) {
    return kind == FailureKind::PositiveReturn ? "+" + std::to_string(value) : errno_name(value);
}

}  // namespace

DriverError::DriverError(Command command, int value, FailureKind kind)
    : std::system_error(value, std::generic_category()),
      command_(command),
      value_(value),
      kind_(kind),
      code_name_(code_name_of(value, kind)),
      meaning_(failure_meaning(command, value, kind)),
      message_(std::string(command_name(command)) + " failed: " + code_name_ + " (" + meaning_ +
               "). See the kernel log (dmesg) for the driver's message.") {}

}  // namespace trak
