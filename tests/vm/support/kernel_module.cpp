#include "support/kernel_module.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace trak::vmtest {

std::string ModuleDir() {
    if (const char* dir = std::getenv("TRAK_MODULE_DIR"); dir != nullptr && *dir != '\0') {
        return dir;
    }
    const char* src = std::getenv("TRAK_SRC");
    return std::string(src != nullptr ? src : ".") + "/driver";
}

int LoadModule(const std::string& path, const std::string& params) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    const long rc = syscall(SYS_finit_module, fd, params.c_str(), 0);
    const int error = rc == 0 ? 0 : errno;
    close(fd);
    return error;
}

int UnloadModule(const std::string& name) {
    return syscall(SYS_delete_module, name.c_str(), O_NONBLOCK) == 0 ? 0 : errno;
}

bool ModuleLoaded(const std::string& name) {
    // Only loaded modules (not built-in ones) have an initstate.
    return std::filesystem::exists("/sys/module/" + name + "/initstate");
}

}  // namespace trak::vmtest
