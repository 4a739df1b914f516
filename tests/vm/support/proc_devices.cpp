#include "support/proc_devices.h"

#include <sstream>
#include <string>

#include "support/proc_files.h"

namespace trak::vmtest {

std::vector<int> MajorsNamed(DeviceKind kind, std::string_view name) {
    // "Character devices:" and "Block devices:" each head lines of
    // "%3d %s"; a blank line ends a section.
    const std::string heading =
        kind == DeviceKind::kCharacter ? "Character devices:" : "Block devices:";
    std::istringstream lines(ReadText("/proc/devices").text);
    std::vector<int> majors;
    bool in_section = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line.back() == ':') {
            in_section = line == heading;
            continue;
        }
        std::istringstream fields(line);
        int major = -1;
        std::string device;
        if (in_section && fields >> major >> device && device == name) {
            majors.push_back(major);
        }
    }
    return majors;
}

}  // namespace trak::vmtest
