#include "snap_state_file.h"

#include <fcntl.h>
#include <trak/file_descriptor.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "args.h"
#include "config_file.h"
#include "raw_file.h"
#include "verb.h"

namespace trakctl {

namespace {

constexpr std::string_view kHeader =
    "# written by trakctl save-state: NAME MINOR VALID STOP_PENDING DEL_PENDING\n";

SavedSnap parse_line(std::string_view line, const std::string& where) {
    std::istringstream fields{std::string(line)};
    std::string name;
    std::string minor;
    std::string valid;
    std::string stop_pending;
    std::string del_pending;
    std::string extra;
    if (!(fields >> name >> minor >> valid >> stop_pending >> del_pending) || (fields >> extra)) {
        throw ConfigError(where + ": expected NAME MINOR VALID STOP_PENDING DEL_PENDING");
    }
    try {
        return {.name = name,
                .minor = parse_minor(minor),
                .snap_valid = parse_flag(valid, "VALID"),
                .stop_pending = parse_flag(stop_pending, "STOP_PENDING"),
                .del_pending = parse_flag(del_pending, "DEL_PENDING")};
    } catch (const UsageError& error) {
        throw ConfigError(where + ": " + error.what());
    }
}

void write_all(const trak::FileDescriptor& file, std::string_view text,
               const std::filesystem::path& path) {
    while (!text.empty()) {
        const ssize_t written = ::write(file.get(), text.data(), text.size());
        if (written < 0) {
            trak::throw_errno("write", path);
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

}  // namespace

std::string format_snap_states(const std::vector<SavedSnap>& snaps) {
    std::string text(kHeader);
    for (const SavedSnap& snap : snaps) {
        text.append(snap.name)
            .append(" ")
            .append(std::to_string(snap.minor))
            .append(snap.snap_valid ? " 1" : " 0")
            .append(snap.stop_pending ? " 1" : " 0")
            .append(snap.del_pending ? " 1\n" : " 0\n");
    }
    return text;
}

std::vector<SavedSnap> parse_snap_states(std::string_view text, const std::string& file) {
    std::vector<SavedSnap> snaps;
    int number = 0;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        ++number;
        if (line.find_first_not_of(" \t") == std::string_view::npos || line.front() == '#') {
            continue;
        }
        snaps.push_back(parse_line(line, file + ":" + std::to_string(number)));
    }
    return snaps;
}

std::vector<SavedSnap> read_snap_states(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::exists(path, error) && !error) {
        return {};
    }
    return parse_snap_states(read_text_file(path), path.string());
}

void write_snap_states(const std::filesystem::path& path, const std::vector<SavedSnap>& snaps) {
    const std::filesystem::path temporary = path.string() + ".tmp";
    const std::filesystem::path directory =
        path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    // The first shutdown after an install finds no /var/lib/trak yet.
    std::error_code made;
    std::filesystem::create_directories(directory, made);
    if (made) {
        throw std::system_error(made, "cannot create " + directory.string());
    }
    {
        trak::FileDescriptor file =
            trak::open_file(temporary, O_WRONLY | O_CREAT | O_TRUNC, "write", 0644);
        write_all(file, format_snap_states(snaps), temporary);
        if (::fsync(file.get()) != 0 || file.reset() != 0) {
            trak::throw_errno("write", temporary);
        }
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        trak::throw_errno("rename " + temporary.string() + " to", path);
    }
    const trak::FileDescriptor parent = trak::open_file(directory, O_RDONLY | O_DIRECTORY, "open");
    if (::fsync(parent.get()) != 0) {
        trak::throw_errno("flush", directory);
    }
}

}  // namespace trakctl
