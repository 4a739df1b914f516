// What trakctl says when it refuses a command line, or the driver refuses a
// command.
#pragma once

#include <trak/command.h>

#include <string>
#include <string_view>
#include <vector>

#include "trakctl_runner.h"

namespace trak_test {

// The end of every report of a refusal by the driver.
inline constexpr std::string_view kSeeKernelLog =
    " See the kernel log (dmesg) for the driver's message.\n";

struct Refusal {
    int errnum;
    std::string report;  // what trakctl says of it, e.g. "EINVAL (no node with that minor)"
};

// Makes the fake driver refuse `command` with each refusal in turn and
// expects `args` to print nothing, exit with 1 and report
// "trakctl: LABEL: COMMAND failed: REPORT. See the kernel log ...".
void expect_refusals(TrakctlRunner& runner, trak::Command command,
                     const std::vector<std::string_view>& args, std::string_view label,
                     const std::vector<Refusal>& refusals);

struct UsageCase {
    std::vector<std::string_view> args;
    std::string message;
};

// Expects each command line of `verb` to exit with 2 and report
// "trakctl: VERB: MESSAGE" and "Try 'trakctl VERB --help'.".
void expect_usage_errors(const TrakctlRunner& runner, std::string_view verb,
                         const std::vector<UsageCase>& cases);

}  // namespace trak_test
