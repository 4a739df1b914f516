// The files apply and save-state share: the configuration and the saved
// snap states, each with an option to name another one.
#pragma once

#include <string>
#include <string_view>

#include "verb.h"

namespace trakctl {

inline constexpr std::string_view kConfigOption = "--config";
inline constexpr std::string_view kStateOption = "--state";

inline constexpr OptionSpec kConfigOptionSpec{kConfigOption, "FILE",
                                              "the configuration (default /etc/trak/trak.conf)"};
inline constexpr OptionSpec kStateOptionSpec{
    kStateOption, "FILE", "the saved snap states (default /var/lib/trak/snaps.state)"};

struct BootFiles {
    std::string config;
    std::string state;
};

// The files the options name, or the default ones.
BootFiles boot_files(const OptionValues& options);

}  // namespace trakctl
