#include "support/open_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace trak::vmtest {

OpenFile::OpenFile(const std::string& path, int flags, mode_t mode)
    : fd_(open(path.c_str(), flags | O_CLOEXEC, mode)), error_(fd_ < 0 ? errno : 0) {}

OpenFile::~OpenFile() { Close(); }

void OpenFile::Close() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

}  // namespace trak::vmtest
