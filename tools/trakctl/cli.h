// The trakctl command line.
#pragma once

#include <ostream>
#include <span>
#include <string_view>

#include "context.h"

namespace trakctl {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;  // the driver or the system refused
inline constexpr int kExitUsage = 2;    // the command line is wrong

// Runs one command line (without the program name) and returns the exit
// status. Results go to `out`; help goes to `out`, errors to `err`.
int run(std::span<const std::string_view> args, const Backend& backend, std::ostream& out,
        std::ostream& err);

}  // namespace trakctl
