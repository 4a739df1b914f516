// Where a snap's COW files lie when a directory is given for them.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace trakctl {

struct CowFileNames {
    std::string bitmap;
    std::string data;
};

// DIR/trak-snap-UUID.cow-bitmap and DIR/trak-snap-UUID.cow-data: the uuid
// makes them the snap's own, and adding the snap again with the same
// directory and uuid finds them again for a resume.
CowFileNames cow_files_in(const std::filesystem::path& dir, std::string_view uuid);

}  // namespace trakctl
