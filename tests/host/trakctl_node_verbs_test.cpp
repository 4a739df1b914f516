// trakctl start, stop and del: the minor they send and how they fail.
#include <gtest/gtest.h>

#include <cerrno>
#include <tuple>

#include "error_reports.h"
#include "record_bytes.h"
#include "trakctl_runner.h"

namespace {

using trak::Command;
using trak_test::field_at;

// A verb and the command it issues.
using NodeVerb = std::tuple<std::string_view, Command>;

class TrakctlNodeVerb : public ::testing::TestWithParam<NodeVerb> {
  protected:
    static std::string_view verb() { return std::get<0>(GetParam()); }
    static Command command() { return std::get<1>(GetParam()); }

    trak_test::TrakctlRunner runner;
};

TEST_P(TrakctlNodeVerb, SendsTheMinorAndPrintsNothing) {
    runner.driver().on(command(), [](void*) { return 0; });

    const auto result = runner.run({verb(), "5"});

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    ASSERT_FALSE(runner.driver().requests().empty());
    EXPECT_EQ(runner.driver().requests().front(), trak::command_code(command()));
    const auto& record = runner.driver().record_of(command());
    ASSERT_EQ(record.size(), 4U);
    EXPECT_EQ(field_at<std::int32_t>(record, 0), 5);
}

TEST_P(TrakctlNodeVerb, TakesExactlyOneMinor) {
    EXPECT_EQ(runner.run({verb()}).status, 2);
    EXPECT_EQ(runner.run({verb(), "1", "2"}).status, 2);
    EXPECT_EQ(runner.run({verb(), "--json", "1"}).status, 2);
    EXPECT_TRUE(runner.driver().requests().empty());
}

INSTANTIATE_TEST_SUITE_P(Verbs, TrakctlNodeVerb,
                         ::testing::Values(NodeVerb{"start", Command::StartNode},
                                           NodeVerb{"stop", Command::StopNode},
                                           NodeVerb{"del", Command::DelNode}),
                         [](const auto& info) { return std::string(std::get<0>(info.param)); });

class TrakctlNodeFailure : public ::testing::Test {
  protected:
    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlNodeFailure, StartOfAStartedNode) {
    runner.driver().on(Command::StartNode, [](void*) { return -EALREADY; });

    const auto result = runner.run({"start", "0"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: start 0: TRAK_START_NODE failed: EALREADY (the node is already started)." +
                  std::string(trak_test::kSeeKernelLog));
}

TEST_F(TrakctlNodeFailure, StartOfAnUnknownMinor) {
    runner.driver().on(Command::StartNode, [](void*) { return -EINVAL; });

    const auto result = runner.run({"start", "9"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: start 9: TRAK_START_NODE failed: EINVAL (no node with that minor, the "
              "snap is DEFUNCT (its stop is pending) and cannot be restarted, or a snap added "
              "after it to the same filter is started (snaps start in the order they were "
              "added))." +
                  std::string(trak_test::kSeeKernelLog));
}

TEST_F(TrakctlNodeFailure, StopOfAnOpenNode) {
    runner.driver().on(Command::StopNode, [](void*) { return -EBUSY; });

    const auto result = runner.run({"stop", "0"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: stop 0: TRAK_STOP_NODE failed: EBUSY (the node, or one of its snaps, is "
              "open)." +
                  std::string(trak_test::kSeeKernelLog));
}

TEST_F(TrakctlNodeFailure, DelOfAnUnknownMinorReturnsPositive22) {
    runner.driver().on(Command::DelNode, [](void*) { return 22; });

    const auto result = runner.run({"del", "3"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "trakctl: del 3: TRAK_DEL_NODE failed: +22 (no such node)." +
                              std::string(trak_test::kSeeKernelLog));
}

TEST_F(TrakctlNodeFailure, DelOfAnOpenNode) {
    runner.driver().on(Command::DelNode, [](void*) { return -EBUSY; });

    const auto result = runner.run({"del", "0"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: del 0: TRAK_DEL_NODE failed: EBUSY (the node, or one of its snaps, is "
              "open or cannot be stopped)." +
                  std::string(trak_test::kSeeKernelLog));
}

// A started snap 5 whose stop or delete the driver accepts; what the
// handler does to its record is what the driver did.
class TrakctlSnapStopAndDel : public ::testing::Test {
  protected:
    TrakctlSnapStopAndDel() {
        trak_info_args snap = trak_test::snap_record(5);
        snap.started = 1;
        snap.snap_valid = 1;
        snap.del_pending = 0;
        runner.driver().add_node(snap);
    }

    // Installs a handler for `command` that leaves snap 5 as `change` makes it.
    void on(Command command, void (*change)(trak_info_args&)) {
        runner.driver().on(command, [this, change](void*) {
            change(runner.driver().node(5));
            return 0;
        });
    }

    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlSnapStopAndDel, APostponedStopIsToldAbout) {
    on(Command::StopNode, [](trak_info_args& snap) { snap.stop_pending = 1; });

    const auto result = runner.run({"stop", "5"});

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "snap 5: stop postponed until the snaps before it on its filter stop; until then "
              "it is DEFUNCT and cannot be restarted\n");
    EXPECT_EQ(runner.driver().requests(),
              (std::vector<unsigned long>{trak::command_code(Command::StopNode),
                                          trak::command_code(Command::GetInfo)}));
}

TEST_F(TrakctlSnapStopAndDel, AStopCarriedOutSaysNothing) {
    on(Command::StopNode, [](trak_info_args& snap) { snap.started = 0; });

    const auto result = runner.run({"stop", "5"});

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST_F(TrakctlSnapStopAndDel, AStoppedFilterSaysNothing) {
    runner.driver().add_node(trak_test::filter_record(0));
    runner.driver().on(Command::StopNode, [](void*) { return 0; });

    const auto result = runner.run({"stop", "0"});

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST_F(TrakctlSnapStopAndDel, APostponedDeleteIsToldAbout) {
    on(Command::DelNode, [](trak_info_args& snap) {
        snap.stop_pending = 1;
        snap.del_pending = 1;
    });

    const auto result = runner.run({"del", "5"});

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "snap 5: delete postponed until the snaps before it on its filter are deleted; "
              "until then it is DEFUNCT\n");
}

TEST_F(TrakctlSnapStopAndDel, ADeleteCarriedOutSaysNothing) {
    runner.driver().on(Command::DelNode, [this](void*) {
        runner.driver().remove_node(5);
        return 0;
    });

    const auto result = runner.run({"del", "5"});

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
}

}  // namespace
