// The shape of one trakctl verb.
#pragma once

#include <cstddef>
#include <ostream>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "context.h"
#include "report.h"

namespace trakctl {

// A command line that does not fit the verb; trakctl exits with 2.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// One run of a verb, after its options were taken out.
struct Invocation {
    Context& context;
    std::vector<std::string_view> args;  // positional arguments
    OutputFormat format;
    std::ostream& out;
};

struct Verb {
    std::string_view name;
    std::string_view arguments;    // synopsis after the options, e.g. "MINOR"
    std::string_view summary;      // one line for `trakctl --help`
    std::string_view description;  // the body of `trakctl VERB --help`
    std::size_t min_args;
    std::size_t max_args;
    bool prints;  // accepts --json
    // Throws UsageError for bad arguments; anything else it throws is a
    // failure of the driver or of the system.
    void (*run)(const Invocation& invocation);
};

}  // namespace trakctl
