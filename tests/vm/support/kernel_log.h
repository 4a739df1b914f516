// Reads the kernel log from a mark on and checks its lines.
#ifndef TRAK_TESTS_VM_SUPPORT_KERNEL_LOG_H_
#define TRAK_TESTS_VM_SUPPORT_KERNEL_LOG_H_

#include <gtest/gtest.h>

#include <optional>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

namespace trak::vmtest {

// One record of the kernel log: its syslog level (3 error, 6 info) and its
// text without the "prio,seq,ts,flags;" prefix.
struct LogRecord {
    int level;
    std::string text;
};

// What a test expects of one kernel log record.
class LogPattern {
  public:
    // An informational line of the driver logged by the calling thread:
    // level 6, text "<tid as %04d>: " followed by exactly `text`.
    static LogPattern Info(std::string_view text);
    // As Info, but the text after the tag must match the whole `regex`.
    static LogPattern InfoMatching(std::string_view regex);
    // An error line of the driver: level 3, text "ERROR: " followed by
    // exactly `text`.
    static LogPattern Error(std::string_view text);
    // Any record, at any level, whose text contains a match of `regex`.
    static LogPattern Matching(std::string_view regex);

    [[nodiscard]] bool Matches(const LogRecord& record) const;
    [[nodiscard]] const std::string& Description() const { return description_; }

  private:
    LogPattern(std::optional<int> level, std::string text, std::optional<std::regex> regex,
               std::string description);

    std::optional<int> level_;
    std::string text_;  // exact text, used when regex_ is empty
    std::optional<std::regex> regex_;
    std::string description_;
};

// The kernel log (/dev/kmsg) from a mark on.
class KernelLog {
  public:
    // Marks the current end of the log.
    KernelLog();
    ~KernelLog();
    KernelLog(const KernelLog&) = delete;
    KernelLog& operator=(const KernelLog&) = delete;

    // Forgets what was read and marks the current end of the log again.
    void Mark();

    // Every record logged since the mark, oldest first.
    const std::vector<LogRecord>& Records();

    ::testing::AssertionResult Contains(const LogPattern& pattern);
    // Each pattern matches a record after the one the previous pattern
    // matched; other records may come in between.
    ::testing::AssertionResult ContainsInOrder(const std::vector<LogPattern>& patterns);
    ::testing::AssertionResult Absent(const LogPattern& pattern);
    // No record since the mark is a kernel report of a bug (KASAN, lockdep,
    // a sleep in atomic context, an oops, a warning, a hung task...): a
    // line matching one of the patterns the VM harness fails a boot on
    // (harness/console-bad.patterns). A failure shows each report, from
    // its first line on.
    ::testing::AssertionResult NoBugReports();

  private:
    std::string Dump();

    int fd_;
    bool lost_records_ = false;
    std::vector<LogRecord> records_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_KERNEL_LOG_H_
