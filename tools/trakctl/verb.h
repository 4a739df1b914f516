// The shape of one trakctl verb.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <span>
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

// An option of one verb, besides --json and --help.
struct OptionSpec {
    std::string_view name;        // with its dashes, e.g. "--extent-size"
    std::string_view value_name;  // e.g. "N"; empty for an option without a value
    std::string_view help;        // one line for `trakctl VERB --help`
};

// The verb options given on a command line, by name; a flag has an empty value.
class OptionValues {
  public:
    // Records one option; giving an option twice throws UsageError.
    void set(std::string_view name, std::string_view value);
    bool has(std::string_view name) const { return values_.contains(name); }
    std::optional<std::string_view> value(std::string_view name) const;
    // The value of an option the verb cannot do without; throws UsageError
    // when it was not given.
    std::string_view required(std::string_view name) const;

  private:
    std::map<std::string_view, std::string_view, std::less<>> values_;
};

// One run of a verb, after its options were taken out.
struct Invocation {
    Context& context;
    std::vector<std::string_view> args;  // positional arguments
    OptionValues options;
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
    std::span<const OptionSpec> options;
    // Throws UsageError for bad arguments; anything else it throws is a
    // failure of the driver or of the system.
    void (*run)(const Invocation& invocation);
};

}  // namespace trakctl
