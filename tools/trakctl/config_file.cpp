#include "config_file.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "args.h"
#include "raw_file.h"
#include "uuid.h"
#include "verb.h"

namespace trakctl {

namespace {

enum class SectionKind : std::uint8_t { Filter, Snap };

struct Value {
    std::string text;
    int line;
};

struct Section {
    SectionKind kind;
    std::string name;
    int line;
    std::map<std::string, Value, std::less<>> values;
};

std::string_view trim(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

class Parser {
  public:
    explicit Parser(const std::string& file) : file_(file) {}

    [[noreturn]] void fail(int line, std::string_view what) const {
        throw ConfigError(file_ + ":" + std::to_string(line) + ": " + std::string(what));
    }

    std::vector<Section> sections(std::string_view text) const {
        std::vector<Section> sections;
        int number = 0;
        while (!text.empty()) {
            const auto end = text.find('\n');
            const std::string_view line = trim(text.substr(0, end));
            text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
            ++number;
            if (line.empty() || line.front() == '#') {
                continue;
            }
            if (line.front() == '[') {
                sections.push_back(header(line, number));
            } else if (sections.empty()) {
                fail(number, "'" + std::string(line) + "' is outside any section");
            } else {
                add_value(sections.back(), line, number);
            }
        }
        return sections;
    }

    // The value of `key`, or a failure naming the section's line.
    const Value& required(const Section& section, std::string_view key) const {
        const auto found = section.values.find(key);
        if (found == section.values.end()) {
            fail(section.line, "[" + kind_name(section.kind) + " " + section.name + "] needs '" +
                                   std::string(key) + "'");
        }
        return found->second;
    }

    // Runs one of the command line's value parsers on a value, turning its
    // complaint into one about the line.
    template <typename Parse>
    auto convert(const Value& value, Parse parse) const {
        try {
            return parse(value.text);
        } catch (const UsageError& error) {
            fail(value.line, error.what());
        }
    }

    std::string absolute(const Value& value, std::string_view key) const {
        if (!value.text.starts_with('/')) {
            fail(value.line,
                 std::string(key) + " must be an absolute path, not '" + value.text + "'");
        }
        return value.text;
    }

    std::string uuid(const Value& value) const {
        if (!is_uuid(value.text)) {
            fail(value.line, "'" + value.text +
                                 "' is not a uuid of the form "
                                 "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}");
        }
        return value.text;
    }

    static std::string kind_name(SectionKind kind) {
        return kind == SectionKind::Filter ? "filter" : "snap";
    }

  private:
    Section header(std::string_view line, int number) const {
        if (line.back() != ']') {
            fail(number, "a section header ends with ']'");
        }
        const std::string_view inside = trim(line.substr(1, line.size() - 2));
        const auto blank = inside.find_first_of(" \t");
        const std::string_view kind = inside.substr(0, blank);
        const std::string_view name =
            blank == std::string_view::npos ? std::string_view() : trim(inside.substr(blank));
        if (kind != "filter" && kind != "snap") {
            fail(number, "unknown section '" + std::string(kind) + "': expected filter or snap");
        }
        if (name.empty() || name.find_first_of(" \t") != std::string_view::npos) {
            fail(number, "a section is [" + std::string(kind) + " NAME], NAME one word");
        }
        return {kind == "filter" ? SectionKind::Filter : SectionKind::Snap,
                std::string(name),
                number,
                {}};
    }

    void add_value(Section& section, std::string_view line, int number) const {
        static const std::set<std::string_view> filter_keys = {"device", "minor", "extent_size",
                                                               "bitmap_dir", "uuid"};
        static const std::set<std::string_view> snap_keys = {"filter", "minor", "chunk_size",
                                                             "cow_dir", "uuid"};
        const auto equals = line.find('=');
        if (equals == std::string_view::npos) {
            fail(number, "expected 'key = value', not '" + std::string(line) + "'");
        }
        const std::string_view key = trim(line.substr(0, equals));
        const std::string_view value = trim(line.substr(equals + 1));
        const auto& keys = section.kind == SectionKind::Filter ? filter_keys : snap_keys;
        if (!keys.contains(key)) {
            fail(number, "unknown key '" + std::string(key) + "' in a " + kind_name(section.kind) +
                             " section");
        }
        if (value.empty()) {
            fail(number, "'" + std::string(key) + "' has no value");
        }
        if (!section.values.emplace(std::string(key), Value{std::string(value), number}).second) {
            fail(number, "'" + std::string(key) + "' is given twice");
        }
    }

    const std::string& file_;
};

FilterConfig filter_of(const Parser& parser, const Section& section) {
    FilterConfig filter{
        .name = section.name,
        .device = parser.absolute(parser.required(section, "device"), "device"),
        .minor = parser.convert(parser.required(section, "minor"),
                                [](std::string_view text) { return parse_minor(text); }),
        .extent_size =
            parser.convert(parser.required(section, "extent_size"),
                           [](std::string_view text) { return parse_size(text, "extent size"); }),
        .bitmap_dir = parser.absolute(parser.required(section, "bitmap_dir"), "bitmap_dir"),
        .uuid = {},
        .line = section.line,
    };
    if (const auto uuid = section.values.find("uuid"); uuid != section.values.end()) {
        filter.uuid = parser.uuid(uuid->second);
    }
    return filter;
}

SnapConfig snap_of(const Parser& parser, const Section& section) {
    return {
        .name = section.name,
        .filter = parser.required(section, "filter").text,
        .minor = parser.convert(parser.required(section, "minor"),
                                [](std::string_view text) { return parse_minor(text); }),
        .chunk_size =
            parser.convert(parser.required(section, "chunk_size"),
                           [](std::string_view text) { return parse_size(text, "chunk size"); }),
        .cow_dir = parser.absolute(parser.required(section, "cow_dir"), "cow_dir"),
        .uuid = parser.uuid(parser.required(section, "uuid")),
        .line = section.line,
    };
}

// Names and minors are the nodes' identities, so each names one node.
void check_unique(const Parser& parser, const Config& config) {
    std::map<std::string, int, std::less<>> names;
    std::map<std::int32_t, int> minors;
    const auto claim = [&](const std::string& name, std::int32_t minor, int line) {
        if (const auto [at, fresh] = names.emplace(name, line); !fresh) {
            parser.fail(line, "the name '" + name + "' is already used on line " +
                                  std::to_string(at->second));
        }
        if (const auto [at, fresh] = minors.emplace(minor, line); !fresh) {
            parser.fail(line, "minor " + std::to_string(minor) + " is already used on line " +
                                  std::to_string(at->second));
        }
    };
    for (const FilterConfig& filter : config.filters) {
        claim(filter.name, filter.minor, filter.line);
    }
    for (const SnapConfig& snap : config.snaps) {
        claim(snap.name, snap.minor, snap.line);
        if (config.find_filter(snap.filter) == nullptr) {
            parser.fail(snap.line, "no [filter " + snap.filter + "] for snap " + snap.name);
        }
    }
}

}  // namespace

const FilterConfig* Config::find_filter(std::string_view name) const {
    const auto found =
        std::find_if(filters.begin(), filters.end(),
                     [name](const FilterConfig& filter) { return filter.name == name; });
    return found == filters.end() ? nullptr : &*found;
}

Config parse_config(std::string_view text, const std::string& file) {
    const Parser parser(file);
    Config config{.file = file, .filters = {}, .snaps = {}};
    for (const Section& section : parser.sections(text)) {
        if (section.kind == SectionKind::Filter) {
            config.filters.push_back(filter_of(parser, section));
        } else {
            config.snaps.push_back(snap_of(parser, section));
        }
    }
    check_unique(parser, config);
    return config;
}

Config read_config(const std::filesystem::path& path) {
    return parse_config(read_text_file(path), path.string());
}

}  // namespace trakctl
