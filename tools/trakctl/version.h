// The version trakctl reports with --version.
#pragma once

#include <string_view>

namespace trakctl {

inline constexpr std::string_view kVersion = "0.1.0";

}  // namespace trakctl
