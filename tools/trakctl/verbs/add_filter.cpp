// trakctl add-filter: layer a filter node over a partition.
#include <array>
#include <string>
#include <system_error>

#include "../args.h"
#include "verbs.h"

namespace trakctl {

namespace {

constexpr std::array kOptions = {
    OptionSpec{"--extent-size", "N", "tracking granule in bytes (required)"},
    OptionSpec{"--bitmap-dir", "DIR", "directory of the bitmap files (required)"},
    OptionSpec{"--minor", "M", "the node's minor (default: the lowest free one)"},
    OptionSpec{"--name", "NAME", "the node's name (default: trakM)"},
    OptionSpec{"--uuid", "UUID", "the node's uuid (default: a new one)"},
};

std::string_view required(const Invocation& invocation, std::string_view name) {
    const auto value = invocation.options.value(name);
    if (!value) {
        throw UsageError("option '" + std::string(name) + "' is required");
    }
    return *value;
}

// The node's device file under /dev/trak, which the driver publishes in
// /proc; empty when it made none.
std::string device_file(const trak::ProcTree& proc, std::int32_t minor) {
    try {
        return proc.node_entry(minor, "dev_name");
    } catch (const std::system_error&) {
        return {};
    }
}

void run_add_filter(const Invocation& invocation) {
    const trak::FilterSpec wanted{
        .hdd_name = absolute_path(invocation.args.front()),
        .minor = parse_signed_minor(invocation.options.value("--minor").value_or("-1")),
        .extent_size = parse_size(required(invocation, "--extent-size"), "extent size"),
        .bmp_dir = absolute_path(required(invocation, "--bitmap-dir")),
        .uuid = std::string(invocation.options.value("--uuid").value_or("")),
        .name = std::string(invocation.options.value("--name").value_or("")),
    };
    const trak::NodeId node = invocation.context.control().add_filter(wanted);
    const std::string dev_name = device_file(invocation.context.proc(), node.minor);
    const Report report{
        {"minor", "minor", static_cast<std::int64_t>(node.minor)},
        {"name", "name", node.name},
        {"uuid", "uuid", node.uuid},
        {"dev_name", "device file", dev_name},
        {"disk", "disk device", "/dev/trak" + std::to_string(node.minor)},
    };
    print_report(report, invocation.format, invocation.out);
}

}  // namespace

const Verb& add_filter_verb() {
    static const Verb verb{
        .name = "add-filter",
        .arguments = "HDD --extent-size N --bitmap-dir DIR [--minor M] [--name NAME] [--uuid UUID]",
        .summary = "layer a filter node over a partition",
        .description =
            "Layers a filter node over the partition whose device file is HDD. The\n"
            "partition must be neither mounted nor open. The node starts stopped;\n"
            "'trakctl start' switches change tracking on. N is a power of two, at least\n"
            "4096 and a multiple of the partition's block size. The change bitmaps are\n"
            "loaded from DIR/trakM.incr and DIR/trakM.diff (all extents count as changed\n"
            "when a file is missing or cannot be trusted) and saved there; DIR must not\n"
            "lie on the partition itself. Prints the node's minor, name and uuid, its\n"
            "device file under /dev/trak and its disk device.\n",
        .min_args = 1,
        .max_args = 1,
        .prints = true,
        .options = kOptions,
        .run = run_add_filter,
    };
    return verb;
}

}  // namespace trakctl
