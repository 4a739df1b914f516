// How trakctl reports a failed command: a line on stderr, and under --json
// also a JSON object on stdout, so that a program reading stdout always
// gets an answer it can parse.
#pragma once

#include <exception>
#include <ostream>
#include <string_view>

#include "report.h"

namespace trakctl {

// Prints "trakctl: COMMAND: MESSAGE" on `err` ("trakctl: MESSAGE" when
// COMMAND is empty) (with a pointer to the help
// for a usage error) and, for JSON output, an object on `out`:
//   {"format_version":1,"command":"start 7","exit_status":1,
//    "errno":"EALREADY","meaning":"the node is already started",
//    "message":"TRAK_START_NODE failed: ..."}
// "errno" is the name of the error code (null when the failure has none,
// such as a usage error) and "meaning" what the driver means by it, from
// libtrak's table, or the system's text for errors that are not the
// driver's. Returns the exit status: kExitUsage for a UsageError,
// kExitFailure for anything else.
int report_failure(std::string_view command, std::string_view verb, const std::exception& error,
                   OutputFormat format, std::ostream& out, std::ostream& err);

}  // namespace trakctl
