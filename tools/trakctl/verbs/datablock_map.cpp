// trakctl datablock-map: which extents of a started snap hold file-system data.
#include <array>
#include <filesystem>
#include <vector>

#include "../args.h"
#include "../extent_report.h"
#include "../raw_file.h"
#include "verbs.h"

namespace trakctl {

namespace {

constexpr std::string_view kExtentSize = "--extent-size";
constexpr std::string_view kOutput = "--output";

constexpr std::array kOptions = {
    OptionSpec{kExtentSize, "N", "one bit per N bytes: a power of two, at least the chunk size"},
    OptionSpec{kOutput, "FILE", "write the raw bitmap bytes to FILE instead"},
};

void run_datablock_map(const Invocation& invocation) {
    const std::int32_t minor = parse_minor(invocation.args.front());
    const std::uint32_t extent_size =
        parse_size(invocation.options.required(kExtentSize), "extent size");
    const auto output = invocation.options.value(kOutput);
    if (output && invocation.format == OutputFormat::Json) {
        throw UsageError("option '--json' does not apply with --output");
    }
    trak::Control& control = invocation.context.control();
    const trak::Info node = control.info(minor);
    // A node that is not a snap gets an empty buffer: the driver refuses it
    // and says why.
    std::vector<std::uint8_t> bits(node.snap ? trak::datablock_bitmap_size(*node.snap, extent_size)
                                             : 0);
    bits.resize(control.datablock_bitmap(minor, extent_size, bits));
    if (output) {
        write_raw_file(std::filesystem::path(*output), bits);
        return;
    }
    const ExtentGeometry geometry{
        .extent_size = extent_size,
        .extent_cnt = extent_size == 0 ? 0 : (node.dev_size + extent_size - 1) / extent_size,
        .dev_size = node.dev_size,
    };
    const Report head{{"minor", "minor", std::int64_t{minor}}};
    print_extents(bits, geometry, head, invocation.format, invocation.out);
}

}  // namespace

const Verb& datablock_map_verb() {
    static const Verb verb{
        .name = "datablock-map",
        .arguments = "MINOR --extent-size N [--output FILE]",
        .summary = "show which extents of a started snap hold file-system data",
        .description =
            "Shows which extents of N bytes of the partition under the started snap\n"
            "node with minor MINOR hold file-system data, by the data-block map that the\n"
            "driver read from the file system when the snap started: extents that are\n"
            "free need not be backed up. Prints them as extent ranges and as the byte\n"
            "ranges of the partition they cover; with --output, writes the raw bitmap\n"
            "instead: one bit per extent, extent e at bit e % 8 of byte e / 8. An\n"
            "extent counts as holding data when any of its chunks does. A snap whose\n"
            "file system was not recognised has no map: the driver then answers ENOMEM,\n"
            "and every extent must be taken to hold data.\n",
        .min_args = 1,
        .max_args = 1,
        .prints = true,
        .options = kOptions,
        .run = run_datablock_map,
    };
    return verb;
}

}  // namespace trakctl
