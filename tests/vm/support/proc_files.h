// Whole-file reads and single-call writes of /proc and /sys entries.
#ifndef TRAK_TESTS_VM_SUPPORT_PROC_FILES_H_
#define TRAK_TESTS_VM_SUPPORT_PROC_FILES_H_

#include <string>
#include <string_view>

namespace trak::vmtest {

struct FileText {
    int error;  // 0, or the errno of opening or reading
    std::string text;
};

// Reads `path` to its end; EFBIG after more than 1 MiB.
FileText ReadText(const std::string& path);

// Writes `data` to `path` with a single write() call, as a driver's write
// handler must see it in one piece. Returns 0 or errno; a short write is
// EIO.
int WriteText(const std::string& path, std::string_view data);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_PROC_FILES_H_
