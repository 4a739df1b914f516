#include "support/recovered_mount.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "support/command.h"

namespace trak::vmtest {
namespace {

::testing::AssertionResult Errno(const std::string& what) {
    return ::testing::AssertionFailure() << what << ": " << std::strerror(errno);
}

::testing::AssertionResult WriteWhole(const std::string& path,
                                      std::span<const std::uint8_t> bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        return Errno("opening " + path);
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n =
            pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (n <= 0) {
            const ::testing::AssertionResult failed = Errno("writing " + path);
            close(fd);
            return failed;
        }
        done += static_cast<std::size_t>(n);
    }
    close(fd);
    return ::testing::AssertionSuccess();
}

// Attaches a free loop device to `file`; returns its path or "".
std::string AttachLoop(const std::string& file, std::string& error) {
    const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (control < 0) {
        error = std::string("opening /dev/loop-control: ") + std::strerror(errno);
        return {};
    }
    const int number = ioctl(control, LOOP_CTL_GET_FREE);
    const int get_free_errno = errno;
    close(control);
    if (number < 0) {
        error = std::string("LOOP_CTL_GET_FREE: ") + std::strerror(get_free_errno);
        return {};
    }
    const std::string loop = "/dev/loop" + std::to_string(number);
    const int loop_fd = open(loop.c_str(), O_RDWR | O_CLOEXEC);
    const int file_fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
    const bool attached = loop_fd >= 0 && file_fd >= 0 && ioctl(loop_fd, LOOP_SET_FD, file_fd) == 0;
    if (!attached) {
        error = "attaching " + file + " to " + loop + ": " + std::strerror(errno);
    }
    if (file_fd >= 0) {
        close(file_fd);
    }
    if (loop_fd >= 0) {
        close(loop_fd);
    }
    return attached ? loop : std::string();
}

// Drops the loop device's cached blocks, so that the next image attached
// to the same device is read afresh, and detaches it.
::testing::AssertionResult DetachLoop(const std::string& loop) {
    const int fd = open(loop.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return Errno("opening " + loop);
    }
    const bool done = ioctl(fd, BLKFLSBUF, 0) == 0 && ioctl(fd, LOOP_CLR_FD, 0) == 0;
    const ::testing::AssertionResult result =
        done ? ::testing::AssertionSuccess() : Errno("detaching " + loop);
    close(fd);
    return result;
}

}  // namespace

RecoveredMount::RecoveredMount(std::string copy, std::string dir)
    : copy_(std::move(copy)), dir_(std::move(dir)) {}

RecoveredMount::~RecoveredMount() {
    if (mounted_ || !loop_.empty()) {
        EXPECT_TRUE(Unmount());
    }
    std::filesystem::remove(copy_);
}

::testing::AssertionResult RecoveredMount::Mount(std::span<const std::uint8_t> image,
                                                 const std::string& fs_type) {
    if (::testing::AssertionResult copied = WriteWhole(copy_, image); !copied) {
        return copied;
    }
    if (access("/dev/loop-control", F_OK) != 0) {
        if (::testing::AssertionResult loaded = Succeeds({"modprobe", "loop"}); !loaded) {
            return loaded;
        }
    }
    std::string error;
    loop_ = AttachLoop(copy_, error);
    if (loop_.empty()) {
        return ::testing::AssertionFailure() << error;
    }
    std::filesystem::create_directories(dir_);
    if (mount(loop_.c_str(), dir_.c_str(), fs_type.c_str(), 0, nullptr) != 0) {
        const ::testing::AssertionResult failed =
            Errno("mounting the recovered " + fs_type + " on " + loop_);
        EXPECT_TRUE(DetachLoop(loop_));
        loop_.clear();
        return failed;
    }
    mounted_ = true;
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult RecoveredMount::Unmount() {
    if (mounted_) {
        if (umount(dir_.c_str()) != 0) {
            return Errno("unmounting " + dir_);
        }
        mounted_ = false;
    }
    if (loop_.empty()) {
        return ::testing::AssertionSuccess();
    }
    ::testing::AssertionResult detached = DetachLoop(loop_);
    loop_.clear();
    return detached;
}

}  // namespace trak::vmtest
