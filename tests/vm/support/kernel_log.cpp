#include "support/kernel_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace trak::vmtest {
namespace {

constexpr int kLevelError = 3;
constexpr int kLevelInfo = 6;
// Larger than the longest record /dev/kmsg hands out.
constexpr size_t kRecordBufferSize = 16384;
// How much of a kernel report a failure shows: enough for the lock chains
// of a lockdep report and the stacks of a KASAN report.
constexpr size_t kReportLines = 80;

// The extended regular expressions of the kernel's bug reports, one a line,
// shared with the harness's console scan; joined into one, since a test
// may leave a hundred thousand records to look at.
const std::regex& BugReportPattern() {
    static const std::regex pattern = [] {
        std::ifstream file(TRAK_BUG_PATTERNS_FILE);
        if (!file) {
            throw std::runtime_error("cannot read " TRAK_BUG_PATTERNS_FILE);
        }
        std::string joined;
        for (std::string line; std::getline(file, line);) {
            if (!line.empty()) {
                joined += (joined.empty() ? "(" : "|(") + line + ")";
            }
        }
        return std::regex(joined, std::regex::extended | std::regex::nosubs);
    }();
    return pattern;
}

bool IsBugReport(const LogRecord& record) {
    return std::regex_search(record.text, BugReportPattern());
}

// The tag the driver puts before its informational lines: the logging
// task's id as "%04d".
std::string ThreadTag() {
    std::array<char, 16> tag{};
    std::snprintf(tag.data(), tag.size(), "%04d", static_cast<int>(gettid()));
    return tag.data();
}

// Splits "prio,seq,ts,flags;text\n[ KEY=value\n...]" into level and text.
std::optional<LogRecord> ParseRecord(std::string_view raw) {
    const size_t semicolon = raw.find(';');
    if (semicolon == std::string_view::npos) {
        return std::nullopt;
    }
    const int prio = std::atoi(std::string(raw.substr(0, raw.find(','))).c_str());
    std::string_view text = raw.substr(semicolon + 1);
    text = text.substr(0, text.find('\n'));
    return LogRecord{prio & 7, std::string(text)};
}

}  // namespace

LogPattern::LogPattern(std::optional<int> level, std::string text, std::optional<std::regex> regex,
                       std::string description)
    : level_(level),
      text_(std::move(text)),
      regex_(std::move(regex)),
      description_(std::move(description)) {}

LogPattern LogPattern::Info(std::string_view text) {
    std::string line = ThreadTag() + ": " + std::string(text);
    return {kLevelInfo, line, std::nullopt, "<6>\"" + line + "\""};
}

LogPattern LogPattern::InfoMatching(std::string_view regex) {
    const std::string anchored = "^" + ThreadTag() + ": (" + std::string(regex) + ")$";
    return {kLevelInfo, {}, std::regex(anchored), "<6>/" + anchored + "/"};
}

LogPattern LogPattern::Error(std::string_view text) {
    std::string line = "ERROR: " + std::string(text);
    return {kLevelError, line, std::nullopt, "<3>\"" + line + "\""};
}

LogPattern LogPattern::Matching(std::string_view regex) {
    return {std::nullopt, {}, std::regex(std::string(regex)), "/" + std::string(regex) + "/"};
}

bool LogPattern::Matches(const LogRecord& record) const {
    if (level_ && *level_ != record.level) {
        return false;
    }
    return regex_ ? std::regex_search(record.text, *regex_) : record.text == text_;
}

KernelLog::KernelLog() : fd_(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "open /dev/kmsg");
    }
    Mark();
}

KernelLog::~KernelLog() { close(fd_); }

void KernelLog::Mark() {
    if (lseek(fd_, 0, SEEK_END) < 0) {
        throw std::system_error(errno, std::generic_category(), "seek /dev/kmsg");
    }
    records_.clear();
    lost_records_ = false;
}

const std::vector<LogRecord>& KernelLog::Records() {
    std::string buffer(kRecordBufferSize, '\0');
    for (;;) {
        const ssize_t n = read(fd_, buffer.data(), buffer.size());
        if (n < 0 && errno == EPIPE) {  // overwritten before we read it
            lost_records_ = true;
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return records_;
        }
        if (auto record = ParseRecord(std::string_view(buffer.data(), static_cast<size_t>(n)))) {
            records_.push_back(std::move(*record));
        }
    }
}

::testing::AssertionResult KernelLog::Contains(const LogPattern& pattern) {
    for (const LogRecord& record : Records()) {
        if (pattern.Matches(record)) {
            return ::testing::AssertionSuccess();
        }
    }
    return ::testing::AssertionFailure() << "no line " << pattern.Description() << Dump();
}

::testing::AssertionResult KernelLog::ContainsInOrder(const std::vector<LogPattern>& patterns) {
    const std::vector<LogRecord>& records = Records();
    auto next = records.begin();
    for (const LogPattern& pattern : patterns) {
        while (next != records.end() && !pattern.Matches(*next)) {
            ++next;
        }
        if (next == records.end()) {
            return ::testing::AssertionFailure()
                   << "no line " << pattern.Description() << " after the lines before it" << Dump();
        }
        ++next;
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult KernelLog::Absent(const LogPattern& pattern) {
    for (const LogRecord& record : Records()) {
        if (pattern.Matches(record)) {
            return ::testing::AssertionFailure()
                   << "unexpected line " << pattern.Description() << Dump();
        }
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult KernelLog::NoBugReports() {
    const std::vector<LogRecord>& records = Records();
    std::ostringstream reports;
    size_t shown = 0;
    for (size_t i = 0; i < records.size(); ++i) {
        if (!IsBugReport(records[i])) {
            continue;
        }
        if (reports.tellp() == 0) {
            reports << "the kernel reported a bug during this test:\n";
        }
        // Each report from its first line, the lines that follow it at most
        // kReportLines; a line already shown is not shown again.
        for (size_t j = std::max(i, shown); j < records.size() && j < i + kReportLines; ++j) {
            reports << "  " << records[j].text << "\n";
            shown = j + 1;
        }
    }
    if (reports.tellp() == 0) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << reports.str();
}

std::string KernelLog::Dump() {
    std::ostringstream out;
    out << "\nkernel log since the mark" << (lost_records_ ? " (records were lost)" : "") << ":\n";
    for (const LogRecord& record : records_) {
        out << "  <" << record.level << ">" << record.text << "\n";
    }
    return out.str();
}

}  // namespace trak::vmtest
