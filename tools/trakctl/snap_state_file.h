// The snaps' states saved at shutdown, /var/lib/trak/snaps.state, from
// which apply resumes them after the next boot. One line per snap:
//
//   # written by trakctl save-state: NAME MINOR VALID STOP_PENDING DEL_PENDING
//   nightly 4 1 0 0
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace trakctl {

inline constexpr std::string_view kDefaultStateFile = "/var/lib/trak/snaps.state";

struct SavedSnap {
    std::string name;
    std::int32_t minor = 0;
    bool snap_valid = false;
    bool stop_pending = false;
    bool del_pending = false;

    bool operator==(const SavedSnap&) const = default;
};

// The text of a state file.
std::string format_snap_states(const std::vector<SavedSnap>& snaps);

// Parses the text of a state file read from `file`; throws ConfigError
// ("FILE:LINE: ...") for a line that is not a snap's state.
std::vector<SavedSnap> parse_snap_states(std::string_view text, const std::string& file);

// The states in `path`; none when the file does not exist (no snap was
// saved, or this is the first boot). Throws std::system_error when it
// exists but cannot be read.
std::vector<SavedSnap> read_snap_states(const std::filesystem::path& path);

// Replaces `path` with the states so that a crash leaves either the old
// file or the new one: writes PATH.tmp, flushes it to disk, renames it over
// PATH and flushes the directory. Throws std::system_error.
void write_snap_states(const std::filesystem::path& path, const std::vector<SavedSnap>& snaps);

}  // namespace trakctl
