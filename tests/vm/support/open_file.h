// A device or file held open for as long as a test needs it: an open snap
// node counts as in use, and refuses to stop.
#ifndef TRAK_TESTS_VM_SUPPORT_OPEN_FILE_H_
#define TRAK_TESTS_VM_SUPPORT_OPEN_FILE_H_

#include <sys/types.h>

#include <string>

namespace trak::vmtest {

class OpenFile {
  public:
    // open(2) of `path` with `flags` (O_CLOEXEC is added), and `mode` for
    // a file that O_CREAT makes.
    OpenFile(const std::string& path, int flags, mode_t mode = 0600);
    ~OpenFile();
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    // 0, or the errno of the open.
    [[nodiscard]] int error() const { return error_; }
    [[nodiscard]] int fd() const { return fd_; }
    void Close();

  private:
    int fd_;
    int error_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_OPEN_FILE_H_
