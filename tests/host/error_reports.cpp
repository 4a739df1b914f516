#include "error_reports.h"

#include <gtest/gtest.h>

namespace trak_test {

void expect_refusals(TrakctlRunner& runner, trak::Command command,
                     const std::vector<std::string_view>& args, std::string_view label,
                     const std::vector<Refusal>& refusals) {
    for (const Refusal& refusal : refusals) {
        runner.driver().on(command, [errnum = refusal.errnum](void*) { return -errnum; });
        const auto result = runner.run(args);
        EXPECT_EQ(result.status, 1) << refusal.report;
        EXPECT_EQ(result.out, "") << refusal.report;
        EXPECT_EQ(result.err, "trakctl: " + std::string(label) + ": " +
                                  std::string(trak::command_name(command)) +
                                  " failed: " + refusal.report + "." + std::string(kSeeKernelLog));
    }
}

void expect_usage_errors(const TrakctlRunner& runner, std::string_view verb,
                         const std::vector<UsageCase>& cases) {
    for (const UsageCase& usage : cases) {
        std::string report("trakctl: ");
        report.append(verb).append(": ").append(usage.message);
        report.append("\nTry 'trakctl ").append(verb).append(" --help'.\n");
        const auto result = runner.run(usage.args);
        EXPECT_EQ(result.status, 2) << usage.message;
        EXPECT_EQ(result.out, "") << usage.message;
        EXPECT_EQ(result.err, report);
    }
}

}  // namespace trak_test
