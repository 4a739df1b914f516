// The in-kernel unit tests of the owner-checked locks (trak_test.ko).
#include <regex>
#include <string>
#include <vector>

#include "support/kernel_module.h"
#include "support/module_test.h"

namespace trak::vmtest {
namespace {

// What trak_test.ko reported: its "<name>: ok" lines and its summary
// lines "<N> passed, <M> failed".
struct SelfTestReport {
    int ok_lines = 0;
    int summaries = 0;
    int passed = -1;
    int failed = -1;
};

SelfTestReport ReadReport(const std::vector<LogRecord>& records) {
    const std::regex summary(R"(^trak_test: ([0-9]+) passed, ([0-9]+) failed$)");
    const std::regex ok(R"(^trak_test: .+: ok$)");
    SelfTestReport report;
    for (const LogRecord& record : records) {
        std::smatch match;
        if (std::regex_match(record.text, match, summary)) {
            ++report.summaries;
            report.passed = std::stoi(match[1]);
            report.failed = std::stoi(match[2]);
        } else if (std::regex_match(record.text, ok)) {
            ++report.ok_lines;
        }
    }
    return report;
}

class LockSelfTest : public ModuleTest {};

TEST_F(LockSelfTest, AllCasesPassAndMisuseIsReported) {
    ASSERT_EQ(LoadLockTests(), 0);

    const SelfTestReport report = ReadReport(log().Records());
    EXPECT_EQ(report.summaries, 1);
    EXPECT_GT(report.passed, 0);
    EXPECT_EQ(report.failed, 0);
    EXPECT_EQ(report.ok_lines, report.passed) << "one \"ok\" line per passed case";
    EXPECT_TRUE(log().Absent(LogPattern::Matching("^trak_test: .*FAILED")));
    EXPECT_TRUE(
        log().Contains(LogPattern::Error("oxmutex_unlock(): Can't unlock mutex: not owner.")));
    EXPECT_TRUE(
        log().Contains(LogPattern::Error("oxread_unlock(): Can't release RO lock: not locked.")));
    EXPECT_TRUE(
        log().Contains(LogPattern::Error("oxwrite_unlock(): Can't release RW lock: not owner.")));

    EXPECT_EQ(UnloadModule(kLockTestModule), 0);
}

}  // namespace
}  // namespace trak::vmtest
