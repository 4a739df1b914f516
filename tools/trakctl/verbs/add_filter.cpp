// trakctl add-filter: layer a filter node over a partition.
#include <array>
#include <string>

#include "../args.h"
#include "../device_files.h"
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

void run_add_filter(const Invocation& invocation) {
    const trak::FilterSpec wanted{
        .hdd_name = absolute_path(invocation.args.front()),
        .minor = parse_signed_minor(invocation.options.value("--minor").value_or("-1")),
        .extent_size = parse_size(invocation.options.required("--extent-size"), "extent size"),
        .bmp_dir = absolute_path(invocation.options.required("--bitmap-dir")),
        .uuid = std::string(invocation.options.value("--uuid").value_or("")),
        .name = std::string(invocation.options.value("--name").value_or("")),
    };
    const trak::NodeId node = invocation.context.control().add_filter(wanted);
    Report report{
        {"minor", "minor", static_cast<std::int64_t>(node.minor)},
        {"name", "name", node.name},
        {"uuid", "uuid", node.uuid},
    };
    add_device_files(report, invocation.context.proc(), node.minor);
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
