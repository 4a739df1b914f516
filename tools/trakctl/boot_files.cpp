#include "boot_files.h"

#include "config_file.h"
#include "snap_state_file.h"

namespace trakctl {

BootFiles boot_files(const OptionValues& options) {
    return {.config = std::string(options.value(kConfigOption).value_or(kDefaultConfigFile)),
            .state = std::string(options.value(kStateOption).value_or(kDefaultStateFile))};
}

}  // namespace trakctl
