// trakctl snap resume: the record it sends and how it fails.
#include <gtest/gtest.h>

#include <cerrno>

#include "error_reports.h"
#include "record_bytes.h"
#include "trakctl_runner.h"

namespace {

using trak::Command;
using trak_test::field_at;

// The four fields of the RESUME_SNAP record.
struct Resume {
    std::uint32_t minor;
    std::uint32_t valid;
    std::uint32_t stop_pending;
    std::uint32_t del_pending;

    bool operator==(const Resume&) const = default;
};

class TrakctlSnapResume : public ::testing::Test {
  protected:
    TrakctlSnapResume() {
        runner.driver().on(Command::ResumeSnap, [](void*) { return 0; });
    }

    Resume sent() const {
        const auto& record = runner.driver().record_of(Command::ResumeSnap);
        EXPECT_EQ(record.size(), 16U);
        return {field_at<std::uint32_t>(record, 0), field_at<std::uint32_t>(record, 4),
                field_at<std::uint32_t>(record, 8), field_at<std::uint32_t>(record, 12)};
    }

    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlSnapResume, ByDefaultTheSnapIsValidAndNothingIsPending) {
    const auto result = runner.run({"snap", "resume", "6"});

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(runner.driver().requests(),
              std::vector<unsigned long>{trak::command_code(Command::ResumeSnap)});
    EXPECT_EQ(sent(), (Resume{6, 1, 0, 0}));
}

TEST_F(TrakctlSnapResume, SendsTheGivenFlags) {
    ASSERT_EQ(runner.run({"snap", "resume", "7", "--valid", "0"}).status, 0);
    EXPECT_EQ(sent(), (Resume{7, 0, 0, 0}));

    ASSERT_EQ(runner.run({"snap", "resume", "--stop-pending=1", "8"}).status, 0);
    EXPECT_EQ(sent(), (Resume{8, 1, 1, 0}));

    ASSERT_EQ(
        runner.run({"snap", "resume", "9", "--del-pending", "1", "--stop-pending", "1"}).status, 0);
    EXPECT_EQ(sent(), (Resume{9, 1, 1, 1}));
}

TEST_F(TrakctlSnapResume, FlagsAreZeroOrOne) {
    std::vector<trak_test::UsageCase> cases;
    for (const std::string_view value : {"2", "yes", "", "-1", "01"}) {
        cases.push_back({{"snap", "resume", "6", "--valid", value},
                         "invalid --valid '" + std::string(value) + "': expected 0 or 1"});
    }
    trak_test::expect_usage_errors(runner, "snap", cases);
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlSnapResume, AddOptionsAndJsonDoNotApply) {
    trak_test::expect_usage_errors(
        runner, "snap",
        {
            {{"snap", "resume", "6", "--chunk-size", "4096"},
             "option '--chunk-size' does not apply to resume"},
            {{"snap", "resume", "6", "--cow-dir", "/c"},
             "option '--cow-dir' does not apply to resume"},
            {{"snap", "resume", "6", "--uuid", "{u}"}, "option '--uuid' does not apply to resume"},
            {{"snap", "resume", "6", "--json"}, "option '--json' does not apply to resume"},
        });
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlSnapResume, RefusalsCarryTheDriversMeaning) {
    trak_test::expect_refusals(
        runner, Command::ResumeSnap, {"snap", "resume", "6"}, "snap resume 6",
        {
            {EALREADY, "EALREADY (the snap is already started)"},
            {EINVAL,
             "EINVAL (no node with that minor, the node is not a snap, a snap added before it is "
             "started, or (resumed as valid) its COW files have not the sizes of a valid snap or "
             "a snap added after it is not a valid resumed snap)"},
            {ESTALE,
             "ESTALE (the filter was written since the snap's COW files were last in use: it can "
             "be resumed only as invalid)"},
            {EIO, "EIO (a COW file could not be opened, or the COW bitmap file could not be read)"},
            {ENOMEM, "ENOMEM (the driver ran out of memory)"},
        });
}

}  // namespace
