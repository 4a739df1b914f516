// The lines that the shared kernel code logged through trak_log().
#ifndef TRAK_HOST_COMPAT_CAPTURED_LOG_H
#define TRAK_HOST_COMPAT_CAPTURED_LOG_H

#include <ostream>
#include <string>
#include <vector>

namespace trak::host {

struct LogLine {
    int level;
    std::string text;  // without a trailing newline

    friend bool operator==(const LogLine&, const LogLine&) = default;
    friend std::ostream& operator<<(std::ostream& os, const LogLine& line) {
        return os << "[" << line.level << "] " << line.text;
    }
};

// Returns the lines logged since the last call, and forgets them.
std::vector<LogLine> TakeLog();

}  // namespace trak::host

#endif
