#include "cow_file_names.h"

#include "uuid.h"

namespace trakctl {

CowFileNames cow_files_in(const std::filesystem::path& dir, std::string_view uuid) {
    const std::string base = (dir / ("trak-snap-" + std::string(uuid_digits(uuid)))).string();
    return {.bitmap = base + ".cow-bitmap", .data = base + ".cow-data"};
}

}  // namespace trakctl
