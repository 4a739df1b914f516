#include "extent_report.h"

#include <vector>

#include "extent_ranges.h"
#include "json_writer.h"

namespace trakctl {

namespace {

void write_ranges(JsonWriter& json, const std::vector<ExtentRange>& ranges) {
    json.begin_array();
    for (const ExtentRange& range : ranges) {
        json.begin_array();
        json.value(range.first);
        json.value(range.last);
        json.end_array();
    }
    json.end_array();
}

}  // namespace

void print_extents(std::span<const std::uint8_t> bits, const ExtentGeometry& geometry,
                   const Report& head, OutputFormat format, std::ostream& out) {
    const std::vector<ExtentRange> ranges = set_extent_ranges(bits, geometry.extent_cnt);
    const std::vector<ExtentRange> bytes =
        byte_ranges(ranges, geometry.extent_size, geometry.dev_size);
    if (format == OutputFormat::Text) {
        out << "extents " << format_ranges(ranges) << " of " << geometry.extent_cnt
            << " (extent size " << geometry.extent_size << ")\n"
            << "bytes " << format_ranges(bytes) << " (" << extent_count(ranges)
            << " extents set)\n";
        return;
    }
    JsonWriter json(out);
    json.begin_object();
    write_json_fields(json, head);
    json.key("extent_size");
    json.value(geometry.extent_size);
    json.key("extent_cnt");
    json.value(geometry.extent_cnt);
    json.key("set_cnt");
    json.value(extent_count(ranges));
    json.key("ranges");
    write_ranges(json, ranges);
    json.key("byte_ranges");
    write_ranges(json, bytes);
    json.end_object();
    out << '\n';
}

}  // namespace trakctl
