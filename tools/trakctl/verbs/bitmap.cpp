// trakctl bitmap: read, reset and persist the change bitmaps of a filter node.
#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "../action_options.h"
#include "../args.h"
#include "../extent_report.h"
#include "../raw_file.h"
#include "verbs.h"

namespace trakctl {

namespace {

constexpr std::string_view kOutput = "--output";
constexpr std::string_view kInput = "--input";
constexpr std::string_view kAll = "--all";

constexpr std::array kOptions = {
    OptionSpec{kOutput, "FILE", "get, get-clear: write the raw bitmap bytes to FILE instead"},
    OptionSpec{kInput, "FILE", "set, merge: raw bitmap bytes, exactly the bitmap's size"},
    OptionSpec{kAll, "", "set: mark every extent changed"},
};

// One bitmap command on one bitmap of one node.
struct Request {
    const Invocation& invocation;
    std::int32_t minor;
    trak::BitmapKind kind;

    trak::Control& control() const { return invocation.context.control(); }
};

// What GET_INFO tells about a bitmap. All zero for a node that is not a
// filter: the driver refuses bitmap commands on it and says so.
struct BitmapShape {
    std::size_t size = 0;  // bytes
    ExtentGeometry geometry;
};

BitmapShape shape_of(const Request& request) {
    const trak::Info info = request.control().info(request.minor);
    if (!info.filter) {
        return {};
    }
    const trak::FilterInfo& filter = *info.filter;
    return {.size = request.kind == trak::BitmapKind::Incremental ? filter.incr_bmp_size
                                                                  : filter.diff_bmp_size,
            .geometry = {.extent_size = filter.extent_size,
                         .extent_cnt = filter.extent_cnt,
                         .dev_size = info.dev_size}};
}

void read_bitmap(const Request& request, bool clear) {
    const BitmapShape shape = shape_of(request);
    std::vector<std::uint8_t> bits(shape.size);
    if (clear) {
        request.control().get_and_clear_bitmap(request.minor, request.kind, bits);
    } else {
        request.control().get_bitmap(request.minor, request.kind, bits);
    }
    if (const auto output = request.invocation.options.value(kOutput)) {
        write_raw_file(std::filesystem::path(*output), bits);
        return;
    }
    const Report head{
        {"minor", "minor", std::int64_t{request.minor}},
        {"kind", "kind", std::string(bitmap_kind_name(request.kind))},
    };
    print_extents(bits, shape.geometry, head, request.invocation.format, request.invocation.out);
}

// The bytes of the --input file, checked against the bitmap's size.
std::vector<std::uint8_t> input_bitmap(const Request& request, std::string_view file) {
    std::vector<std::uint8_t> bits = read_raw_file(std::filesystem::path(file));
    const BitmapShape shape = shape_of(request);
    if (shape.size != 0 && bits.size() != shape.size) {
        throw std::runtime_error(std::string(file) + " holds " + std::to_string(bits.size()) +
                                 " bytes, but the " + std::string(bitmap_kind_name(request.kind)) +
                                 " bitmap of node " + std::to_string(request.minor) + " has " +
                                 std::to_string(shape.size));
    }
    return bits;
}

void run_get(const Request& request) { read_bitmap(request, false); }

void run_get_clear(const Request& request) { read_bitmap(request, true); }

void run_clear(const Request& request) {
    request.control().clear_bitmap(request.minor, request.kind);
}

void run_set(const Request& request) {
    const OptionValues& options = request.invocation.options;
    const auto input = options.value(kInput);
    if (options.has(kAll) == input.has_value()) {
        throw UsageError("set takes either --input FILE or --all");
    }
    if (input) {
        request.control().set_bitmap(request.minor, request.kind, input_bitmap(request, *input));
    } else {
        request.control().set_bitmap_all(request.minor, request.kind);
    }
}

void run_merge(const Request& request) {
    const auto input = request.invocation.options.value(kInput);
    if (!input) {
        throw UsageError("merge needs --input FILE");
    }
    request.control().merge_bitmap(request.minor, request.kind, input_bitmap(request, *input));
}

void run_load(const Request& request) {
    request.control().load_bitmap(request.minor, request.kind);
}

void run_save(const Request& request) {
    request.control().save_bitmap(request.minor, request.kind);
}

struct Action {
    std::string_view name;
    std::span<const std::string_view> options;  // which of kOptions it takes
    bool prints;                                // takes --json
    void (*run)(const Request& request);
};

constexpr std::array<std::string_view, 1> kOutputOnly = {kOutput};
constexpr std::array<std::string_view, 1> kInputOnly = {kInput};
constexpr std::array<std::string_view, 2> kInputOrAll = {kInput, kAll};

constexpr std::array kActions = {
    Action{"get", kOutputOnly, true, run_get},
    Action{"get-clear", kOutputOnly, true, run_get_clear},
    Action{"clear", {}, false, run_clear},
    Action{"set", kInputOrAll, false, run_set},
    Action{"merge", kInputOnly, false, run_merge},
    Action{"load", {}, false, run_load},
    Action{"save", {}, false, run_save},
};

const Action& find_action(std::string_view name) {
    const auto* action = std::find_if(kActions.begin(), kActions.end(),
                                      [name](const Action& a) { return a.name == name; });
    if (action == kActions.end()) {
        throw UsageError("unknown bitmap action '" + std::string(name) +
                         "': expected get, get-clear, clear, set, merge, load or save");
    }
    return *action;
}

// Refuses options that the action does not take.
void check_options(const Action& action, const Invocation& invocation) {
    check_action_options(invocation, action.name, kOptions, action.options, action.prints);
    if (invocation.format == OutputFormat::Json && invocation.options.has(kOutput)) {
        throw UsageError("option '--json' does not apply to " + std::string(action.name) +
                         " with --output");
    }
}

void run_bitmap(const Invocation& invocation) {
    const Action& action = find_action(invocation.args[0]);
    const Request request{.invocation = invocation,
                          .minor = parse_minor(invocation.args[1]),
                          .kind = parse_bitmap_kind(invocation.args[2])};
    check_options(action, invocation);
    action.run(request);
}

}  // namespace

const Verb& bitmap_verb() {
    static const Verb verb{
        .name = "bitmap",
        .arguments =
            "get|get-clear|clear|set|merge|load|save MINOR incr|diff [--output FILE] "
            "[--input FILE] [--all]",
        .summary = "read, reset, load or save a filter node's change bitmap",
        .description =
            "Works on the incremental (incr) or differential (diff) change bitmap of the\n"
            "filter node with minor MINOR: one bit per extent, set when the extent was\n"
            "written through the node.\n"
            "  get        show the set extents as ranges, with their bytes on the partition\n"
            "  get-clear  the same, and clear the bitmap at once\n"
            "  clear      clear every bit\n"
            "  set        replace the bitmap by the bytes of --input FILE, or set every\n"
            "             bit with --all\n"
            "  merge      set the bits that are set in --input FILE as well\n"
            "  load       reload the bitmap from its file (a missing or untrusted file\n"
            "             marks every extent changed)\n"
            "  save       write the bitmap to its file\n"
            "Every action that changes the bitmap also writes it to its file.\n",
        .min_args = 3,
        .max_args = 3,
        .prints = true,
        .options = kOptions,
        .run = run_bitmap,
    };
    return verb;
}

}  // namespace trakctl
