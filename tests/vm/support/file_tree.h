// What a directory tree holds, entry by entry: every regular file's size
// and checksum, every directory and every symbolic link's target, so that
// two trees (a file system and a snapshot of it mounted elsewhere) can be
// compared file by file.
#ifndef TRAK_TESTS_VM_SUPPORT_FILE_TREE_H_
#define TRAK_TESTS_VM_SUPPORT_FILE_TREE_H_

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

namespace trak::vmtest {

// Path relative to the root -> "file <size> <checksum>", "dir" or
// "link <target>".
using TreeContents = std::map<std::string, std::string>;

struct TreeReading {
    int error;           // 0 or the errno of the first entry that could not be read
    std::string failed;  // that entry
    TreeContents contents;
};

// Everything under `root`, except the top-level entries named in `skip`.
TreeReading ReadTree(const std::string& root, const std::set<std::string>& skip = {});

// The same entries with the same contents; otherwise every difference.
::testing::AssertionResult SameTree(const TreeContents& actual, const TreeContents& expected);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_FILE_TREE_H_
