#include "support/kernel_module.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "support/command.h"

namespace trak::vmtest {

std::string ModuleDir() {
    if (const char* dir = std::getenv("TRAK_MODULE_DIR"); dir != nullptr && *dir != '\0') {
        return dir;
    }
    const char* src = std::getenv("TRAK_SRC");
    return std::string(src != nullptr ? src : ".") + "/driver";
}

namespace {

// Loads with modprobe the modules that `path` depends on (for trak.ko the
// kernel's crc32c and crc16).
bool LoadDependencies(const std::string& path) {
    const CommandResult depends = RunCommand({"modinfo", "-F", "depends", path});
    if (depends.status != 0) {
        return false;
    }
    std::istringstream names(depends.output);
    for (std::string name; std::getline(names, name, ',');) {
        std::erase(name, '\n');
        if (!name.empty() && RunCommand({"modprobe", name}).status != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

int LoadModule(const std::string& path, const std::string& params) {
    if (!LoadDependencies(path)) {
        return ENOENT;
    }
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
