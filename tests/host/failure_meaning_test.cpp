// What a refused command tells the user.
#include <gtest/gtest.h>
#include <trak/error.h>

#include <cerrno>
#include <string>

namespace {

using trak::Command;
using trak::FailureKind;

std::string meaning(Command command, int errnum) {
    return trak::failure_meaning(command, errnum, FailureKind::Errno);
}

TEST(FailureMeaning, CommandSpecificMeanings) {
    EXPECT_EQ(meaning(Command::AddFilterNode, EBUSY), "the partition is mounted or already open");
    EXPECT_EQ(meaning(Command::StartNode, EALREADY), "the node is already started");
    EXPECT_EQ(meaning(Command::StartNode, EAGAIN),
              "the file system on the filter did not become quiet, or writes already passed on "
              "to the partition did not end, within 60 seconds of the request");
    EXPECT_EQ(meaning(Command::StopNode, EBUSY), "the node, or one of its snaps, is open");
    EXPECT_EQ(meaning(Command::GetDeviceList, EINVAL),
              "the device type is neither filter (1) nor snap (2)");
    EXPECT_EQ(meaning(Command::TestDatablock, EBUSY), "the partition is mounted");
    EXPECT_EQ(meaning(Command::AddSnapNode, ENOSPC),
              "the filter has 256 snaps already, or every minor is in use");
}

TEST(FailureMeaning, SnapshotCommands) {
    EXPECT_EQ(meaning(Command::AddSnapNode, EINVAL),
              "no filter node has that minor, a COW file lies on the partition being snapped or on "
              "a file system without a device (such as tmpfs), the chunk size is not a power of "
              "two of at least 4096 or differs from that of the filter's other snaps, or the minor "
              "is too big or taken");
    EXPECT_EQ(meaning(Command::ResumeSnap, EINVAL),
              "no node with that minor, the node is not a snap, a snap added before it is "
              "started, or (resumed as valid) its COW files have not the sizes of a valid snap or "
              "a snap added after it is not a valid resumed snap");
    EXPECT_EQ(meaning(Command::ResumeSnap, ESTALE),
              "the filter was written since the snap's COW files were last in use: it can be "
              "resumed only as invalid");
    EXPECT_EQ(meaning(Command::ResumeSnap, EALREADY), "the snap is already started");
    EXPECT_EQ(meaning(Command::ResumeSnap, EIO),
              "a COW file could not be opened, or the COW bitmap file could not be read");
    EXPECT_EQ(meaning(Command::GetDatablockBmp, ENOMEM),
              "the snap's file system was not recognised, so it has no data-block map (or the "
              "driver ran out of memory)");
    EXPECT_EQ(meaning(Command::StartNode, EIO), "a COW file could not be created or written");
}

TEST(FailureMeaning, SameCodeMeansDifferentThingsPerCommand) {
    EXPECT_EQ(meaning(Command::GetInfo, EINVAL), "no node with that minor");
    EXPECT_EQ(meaning(Command::GetBmp, EINVAL),
              "no node with that minor, the node is not a filter, or the bitmap kind or size is "
              "bad");
    EXPECT_EQ(meaning(Command::LoadBmp, EIO),
              "the bitmap file is missing, unreadable or has a bad prefix (the bitmap is now all "
              "ones: every extent counts as changed)");
    EXPECT_EQ(meaning(Command::SaveBmp, EIO), "the bitmap file could not be written");
}

TEST(FailureMeaning, DispatcherCodesMeanTheSameForEveryCommand) {
    for (const Command command : trak::kAllCommands) {
        EXPECT_EQ(meaning(command, ENOTTY),
                  "the driver does not know this command (version mismatch?)");
        EXPECT_EQ(meaning(command, ENOSYS), "this driver build does not implement the command yet");
        EXPECT_EQ(meaning(command, EPERM),
                  "only a process with CAP_SYS_ADMIN may command the driver");
    }
    EXPECT_EQ(meaning(Command::GetInfo, EFAULT),
              "the driver could not copy the record or its data from or to this process, or "
              "could not allocate a buffer for it");
}

TEST(FailureMeaning, DelNodeOfAnUnknownMinorReturnsPositive22) {
    EXPECT_EQ(trak::failure_meaning(Command::DelNode, 22, FailureKind::PositiveReturn),
              "no such node");
    EXPECT_EQ(trak::failure_meaning(Command::StartNode, 22, FailureKind::PositiveReturn),
              "an unexpected positive return value");
}

TEST(FailureMeaning, UnknownCodeFallsBackToTheSystemText) {
    EXPECT_EQ(meaning(Command::StartNode, EXDEV),
              "not a documented failure of this command: Invalid cross-device link");
    EXPECT_EQ(meaning(Command::GetDeviceList, EBUSY),
              "not a documented failure of this command: Device or resource busy");
}

TEST(ErrnoName, NamesKnownCodesAndNumbersUnknownOnes) {
    EXPECT_EQ(trak::errno_name(EBUSY), "EBUSY");
    EXPECT_EQ(trak::errno_name(EALREADY), "EALREADY");
    EXPECT_EQ(trak::errno_name(4095), "errno 4095");
}

TEST(DriverError, MessageNamesCommandCodeMeaningAndKernelLog) {
    const trak::DriverError error(Command::GetInfo, EINVAL, FailureKind::Errno);
    EXPECT_STREQ(error.what(),
                 "TRAK_GET_INFO failed: EINVAL (no node with that minor). See the kernel log "
                 "(dmesg) for the driver's message.");
    EXPECT_EQ(error.command(), Command::GetInfo);
    EXPECT_EQ(error.value(), EINVAL);
    EXPECT_EQ(error.kind(), FailureKind::Errno);
    EXPECT_EQ(error.code_name(), "EINVAL");
    EXPECT_EQ(error.meaning(), "no node with that minor");
    EXPECT_EQ(error.code(), std::errc::invalid_argument);
}

TEST(DriverError, PositiveReturnIsShownWithItsSign) {
    const trak::DriverError error(Command::DelNode, 22, FailureKind::PositiveReturn);
    EXPECT_STREQ(error.what(),
                 "TRAK_DEL_NODE failed: +22 (no such node). See the kernel log (dmesg) for the "
                 "driver's message.");
    EXPECT_EQ(error.code_name(), "+22");
    EXPECT_EQ(error.kind(), FailureKind::PositiveReturn);
}

TEST(DriverError, IsASystemError) {
    try {
        throw trak::DriverError(Command::StartNode, EALREADY, FailureKind::Errno);
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EALREADY);
        EXPECT_EQ(error.code().category(), std::generic_category());
        return;
    }
    FAIL() << "DriverError was not caught as std::system_error";
}

}  // namespace
