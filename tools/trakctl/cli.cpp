#include "cli.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "error_output.h"
#include "verb_table.h"
#include "version.h"

namespace trakctl {

namespace {

void print_main_help(std::ostream& out) {
    out << "Usage: trakctl [--device PATH] VERB [OPTIONS] [ARGUMENTS]\n"
           "\n"
           "Controls the trak driver through its control device (default "
        << trak::kDefaultControlDevice
        << ").\n"
           "\n"
           "Verbs:\n";
    std::size_t width = 0;
    for (const Verb* verb : verb_table()) {
        width = std::max(width, verb->name.size());
    }
    for (const Verb* verb : verb_table()) {
        out << "  " << verb->name << std::string(width - verb->name.size() + 2, ' ')
            << verb->summary << '\n';
    }
    out << "\n"
           "Options:\n"
           "  --device PATH  the control device to use\n"
           "  --help, -h     show this help\n"
           "  --version      show trakctl's version\n"
           "\n"
           "Tracking the changes of a partition, e.g. /dev/sdb1:\n"
           "  trakctl add-filter /dev/sdb1 --extent-size 65536 --bitmap-dir /var/lib/trak\n"
           "  trakctl start 0\n"
           "  mount /dev/trak0 /srv    (use the node, never /dev/sdb1 itself)\n"
           "  trakctl bitmap get-clear 0 incr\n"
           "\n"
           "Run 'trakctl VERB --help' for the options of a verb.\n"
           "With --json, every verb that prints writes one JSON object carrying\n"
           "\"format_version\": 1, and a failure is a JSON object on stdout too.\n"
           "Exit status: 0 success, 1 the driver or the system refused, 2 usage error.\n";
}

// "--extent-size N", as the option list shows it.
std::string option_synopsis(const OptionSpec& option) {
    std::string text(option.name);
    if (!option.value_name.empty()) {
        text.append(" ").append(option.value_name);
    }
    return text;
}

void print_verb_help(const Verb& verb, std::ostream& out) {
    out << "Usage: trakctl " << verb.name << (verb.prints ? " [--json]" : "");
    if (!verb.arguments.empty()) {
        out << ' ' << verb.arguments;
    }
    out << "\n\n" << verb.description << "\nOptions:\n";
    std::vector<std::pair<std::string, std::string_view>> lines;
    for (const OptionSpec& option : verb.options) {
        lines.emplace_back(option_synopsis(option), option.help);
    }
    if (verb.prints) {
        lines.emplace_back("--json", "print JSON instead of text");
    }
    lines.emplace_back("--version", "show trakctl's version");
    lines.emplace_back("--help", "show this help");
    std::size_t width = 0;
    for (const auto& [synopsis, help] : lines) {
        width = std::max(width, synopsis.size());
    }
    for (const auto& [synopsis, help] : lines) {
        out << "  " << synopsis << std::string(width - synopsis.size() + 2, ' ') << help << '\n';
    }
}

// The outcome of reading the command line.
struct CommandLine {
    std::string device_path{trak::kDefaultControlDevice};
    const Verb* verb = nullptr;
    bool help = false;
    bool version = false;
    OutputFormat format = OutputFormat::Text;
    std::vector<std::string_view> args;
    OptionValues options;
};

const OptionSpec* find_option(const Verb& verb, std::string_view name) {
    for (const OptionSpec& option : verb.options) {
        if (option.name == name) {
            return &option;
        }
    }
    return nullptr;
}

// Reads one of the verb's own options, "--name VALUE", "--name=VALUE" or
// "--name", at args[next]; returns the index of the last argument it used.
std::size_t parse_verb_option(std::span<const std::string_view> args, std::size_t next,
                              CommandLine& line) {
    const std::string_view arg = args[next];
    const std::size_t equals = arg.find('=');
    const std::string_view name = arg.substr(0, equals);
    const OptionSpec* option = find_option(*line.verb, name);
    if (option == nullptr) {
        throw UsageError("unknown option '" + std::string(arg) + "'");
    }
    if (option->value_name.empty()) {
        if (equals != std::string_view::npos) {
            throw UsageError("option '" + std::string(name) + "' takes no value");
        }
        line.options.set(name, {});
        return next;
    }
    if (equals != std::string_view::npos) {
        line.options.set(name, arg.substr(equals + 1));
        return next;
    }
    if (next + 1 == args.size()) {
        throw UsageError("option '" + std::string(name) + "' needs a value " +
                         std::string(option->value_name));
    }
    line.options.set(name, args[next + 1]);
    return next + 1;
}

// Reads the verb's options and arguments into `line`.
void parse_verb_args(std::span<const std::string_view> args, CommandLine& line) {
    const Verb& verb = *line.verb;
    // Known before anything can go wrong, so that even an error about an
    // earlier argument is reported as JSON.
    const auto end = std::find(args.begin(), args.end(), "--");
    if (verb.prints && std::find(args.begin(), end, "--json") != end) {
        line.format = OutputFormat::Json;
    }
    bool options_done = false;
    for (std::size_t next = 0; next < args.size(); ++next) {
        const std::string_view arg = args[next];
        if (options_done || arg.size() < 2 || arg.front() != '-') {
            line.args.push_back(arg);
        } else if (arg == "--") {
            options_done = true;
        } else if (arg == "--help" || arg == "-h") {
            line.help = true;
        } else if (arg == "--version") {
            line.version = true;
        } else if (arg == "--json" && verb.prints) {
            line.format = OutputFormat::Json;
        } else {
            next = parse_verb_option(args, next, line);
        }
    }
    if (line.help || line.version) {
        return;
    }
    if (line.args.size() < verb.min_args || line.args.size() > verb.max_args) {
        throw UsageError(line.args.size() < verb.min_args ? "missing argument"
                                                          : "too many arguments");
    }
}

// Reads the whole command line into `line`. `line.verb` stays null for
// `trakctl --help` and until the verb has been read.
void parse(std::span<const std::string_view> args, CommandLine& line) {
    std::size_t next = 0;
    for (; next < args.size() && args[next].starts_with('-'); ++next) {
        const std::string_view arg = args[next];
        if (arg == "--help" || arg == "-h") {
            line.help = true;
            return;
        }
        if (arg == "--version") {
            line.version = true;
            return;
        }
        if (arg == "--device") {
            if (++next == args.size()) {
                throw UsageError("option '--device' needs a PATH");
            }
            line.device_path = args[next];
        } else if (arg.starts_with("--device=")) {
            line.device_path = arg.substr(std::string_view("--device=").size());
        } else {
            throw UsageError("unknown option '" + std::string(arg) + "'");
        }
    }
    if (next == args.size()) {
        throw UsageError("no verb given");
    }
    line.verb = find_verb(args[next]);
    if (line.verb == nullptr) {
        throw UsageError("unknown verb '" + std::string(args[next]) + "'");
    }
    parse_verb_args(args.subspan(next + 1), line);
}

// "info 7": the verb and its arguments, for error messages about what the
// driver or the system did.
std::string command_label(const CommandLine& line) {
    std::string label(line.verb->name);
    for (const std::string_view arg : line.args) {
        label.append(" ").append(arg);
    }
    return label;
}

}  // namespace

int run(std::span<const std::string_view> args, const Backend& backend, std::ostream& out,
        std::ostream& err) {
    CommandLine line;
    try {
        parse(args, line);
    } catch (const UsageError& error) {
        const std::string_view verb = line.verb != nullptr ? line.verb->name : "";
        return report_failure(verb, verb, error, line.format, out, err);
    }
    if (line.version) {
        out << "trakctl " << kVersion << '\n';
        return kExitOk;
    }
    if (line.help) {
        if (line.verb != nullptr) {
            print_verb_help(*line.verb, out);
        } else {
            print_main_help(out);
        }
        return kExitOk;
    }
    Context context(backend, line.device_path);
    try {
        line.verb->run(Invocation{context, line.args, line.options, line.format, out});
    } catch (const UsageError& error) {
        return report_failure(line.verb->name, line.verb->name, error, line.format, out, err);
    } catch (const std::exception& error) {
        return report_failure(command_label(line), line.verb->name, error, line.format, out, err);
    }
    return kExitOk;
}

}  // namespace trakctl
