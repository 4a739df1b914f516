#include "error_output.h"

#include <trak/error.h>

#include <string>
#include <system_error>

#include "cli.h"
#include "json_writer.h"
#include "verb.h"

namespace trakctl {

namespace {

constexpr std::string_view kProgram = "trakctl";

// The errno name and meaning of a failure; both empty when it has no code.
struct FailureCode {
    std::string name;
    std::string meaning;
};

FailureCode failure_code(const std::exception& error) {
    if (const auto* driver = dynamic_cast<const trak::DriverError*>(&error)) {
        return {driver->code_name(), driver->meaning()};
    }
    if (const auto* system = dynamic_cast<const std::system_error*>(&error)) {
        return {trak::errno_name(system->code().value()), system->code().message()};
    }
    return {};
}

void print_json_failure(std::string_view command, int status, const std::exception& error,
                        std::ostream& out) {
    const FailureCode code = failure_code(error);
    JsonWriter json(out);
    begin_json_output(json);
    json.key("command");
    json.value(command);
    json.key("exit_status");
    json.value(std::int64_t{status});
    json.key("errno");
    if (code.name.empty()) {
        json.null();
    } else {
        json.value(code.name);
    }
    json.key("meaning");
    if (code.meaning.empty()) {
        json.null();
    } else {
        json.value(code.meaning);
    }
    json.key("message");
    json.value(error.what());
    json.end_object();
    out << '\n';
}

}  // namespace

int report_failure(std::string_view command, std::string_view verb, const std::exception& error,
                   OutputFormat format, std::ostream& out, std::ostream& err) {
    const bool usage = dynamic_cast<const UsageError*>(&error) != nullptr;
    err << kProgram << ": ";
    if (!command.empty()) {
        err << command << ": ";
    }
    err << error.what() << '\n';
    if (usage) {
        err << "Try 'trakctl " << verb << (verb.empty() ? "" : " ") << "--help'.\n";
    }
    const int status = usage ? kExitUsage : kExitFailure;
    if (format == OutputFormat::Json) {
        print_json_failure(command, status, error, out);
    }
    return status;
}

}  // namespace trakctl
