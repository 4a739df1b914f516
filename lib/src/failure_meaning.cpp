// The driver's meaning of each error code, per command.
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "trak/error.h"

namespace trak {

namespace {

struct Meaning {
    std::optional<Command> command;  // empty: any command
    int errnum;
    std::string_view text;
};

constexpr std::string_view kNoSuchNode = "no node with that minor";
constexpr std::string_view kBadBitmapRequest =
    "no node with that minor, the node is not a filter, or the bitmap kind or size is bad";
constexpr std::string_view kBadBitmapKind =
    "no node with that minor, the node is not a filter, or the bitmap kind is bad";

// Command-specific entries come first: the first match wins.
constexpr std::array kMeanings = {
    Meaning{Command::AddFilterNode, EINVAL,
            "the path is empty or not a block device, a filter already covers that partition, "
            "the partition cannot be opened or is empty, the extent size is bad, or the minor is "
            "too big or taken"},
    Meaning{Command::AddFilterNode, ENOENT, "the partition's device file cannot be looked up"},
    Meaning{Command::AddFilterNode, EBUSY, "the partition is mounted or already open"},
    Meaning{Command::AddFilterNode, ENOSPC, "every minor is in use"},
    Meaning{Command::AddFilterNode, EIO, "the driver could not set up the node's request tracking"},
    Meaning{Command::AddSnapNode, EINVAL,
            "no filter node has that minor, a COW file lies on the partition being snapped or on "
            "a file system without a device (such as tmpfs), the chunk size is not a power of two "
            "of at least 4096 or differs from that of the filter's other snaps, or the minor is "
            "too big or taken"},
    Meaning{Command::AddSnapNode, ENOSPC,
            "the filter has 256 snaps already, or every minor is in use"},
    Meaning{Command::DelNode, EBUSY, "the node, or one of its snaps, is open or cannot be stopped"},
    Meaning{Command::StartNode, EINVAL,
            "no node with that minor, the snap is DEFUNCT (its stop is pending) and cannot be "
            "restarted, or a snap added after it to the same filter is started (snaps start in "
            "the order they were added)"},
    Meaning{Command::StartNode, EALREADY, "the node is already started"},
    Meaning{Command::StartNode, EIO, "a COW file could not be created or written"},
    Meaning{Command::StartNode, EAGAIN,
            "the file system on the filter did not become quiet, or writes already passed on to "
            "the partition did not end, within 60 seconds of the request"},
    Meaning{Command::StopNode, EINVAL, kNoSuchNode},
    Meaning{Command::StopNode, EBUSY, "the node, or one of its snaps, is open"},
    Meaning{Command::GetDeviceList, EINVAL, "the device type is neither filter (1) nor snap (2)"},
    Meaning{Command::GetInfo, EINVAL, kNoSuchNode},
    Meaning{Command::LoadBmp, EINVAL, kBadBitmapKind},
    Meaning{Command::LoadBmp, EIO,
            "the bitmap file is missing, unreadable or has a bad prefix (the bitmap is now all "
            "ones: every extent counts as changed)"},
    Meaning{Command::SaveBmp, EINVAL,
            "no node with that minor, the node is not a filter, the bitmap kind is bad, or the "
            "bitmap file lies on the filtered partition"},
    Meaning{Command::SaveBmp, EIO, "the bitmap file could not be written"},
    Meaning{Command::ClrBmp, EINVAL, kBadBitmapKind},
    Meaning{Command::SetBmp, EINVAL,
            "no node with that minor, the node is not a filter, the bitmap kind or size is bad, "
            "or size and data were not both given or both omitted"},
    Meaning{Command::MergeBmp, EINVAL, kBadBitmapRequest},
    Meaning{Command::GetBmp, EINVAL, kBadBitmapRequest},
    Meaning{Command::GetAndClrBmp, EINVAL, kBadBitmapRequest},
    Meaning{Command::GetDatablockBmp, EINVAL,
            "no node with that minor, the node is not a snap or not started, the extent size is "
            "not a power of two at least the chunk size, or the buffer is too small"},
    Meaning{Command::GetDatablockBmp, ENOMEM,
            "the snap's file system was not recognised, so it has no data-block map (or the "
            "driver ran out of memory)"},
    Meaning{Command::TestDatablock, EINVAL,
            "the path is empty or not a block device, or the file system on it was not "
            "recognised or its bitmap is inconsistent"},
    Meaning{Command::TestDatablock, ENOENT, "the device file cannot be looked up"},
    Meaning{Command::TestDatablock, EBUSY, "the partition is mounted"},
    Meaning{Command::TestDatablock, EIO,
            "the partition could not be opened, or the self-test found a mismatch"},
    Meaning{Command::ResumeSnap, EINVAL,
            "no node with that minor, the node is not a snap, a snap added before it is "
            "started, or (resumed as valid) its COW files have not the sizes of a valid snap or "
            "a snap added after it is not a valid resumed snap"},
    Meaning{Command::ResumeSnap, ESTALE,
            "the filter was written since the snap's COW files were last in use: it can be "
            "resumed only as invalid"},
    Meaning{Command::ResumeSnap, EALREADY, "the snap is already started"},
    Meaning{Command::ResumeSnap, EIO,
            "a COW file could not be opened, or the COW bitmap file could not be read"},
    Meaning{std::nullopt, EPERM, "only a process with CAP_SYS_ADMIN may command the driver"},
    Meaning{std::nullopt, ENOTTY, "the driver does not know this command (version mismatch?)"},
    Meaning{std::nullopt, ENOSYS, "this driver build does not implement the command yet"},
    Meaning{std::nullopt, EFAULT,
            "the driver could not copy the record or its data from or to this process, or could "
            "not allocate a buffer for it"},
    Meaning{std::nullopt, ENOMEM, "the driver ran out of memory"},
};

}  // namespace

std::string failure_meaning(Command command, int value, FailureKind kind) {
    if (kind == FailureKind::PositiveReturn) {
        if (command == Command::DelNode && value == EINVAL) {
            return "no such node";
        }
        return "an unexpected positive return value";
    }
    for (const Meaning& meaning : kMeanings) {
        if (meaning.errnum == value && (!meaning.command || *meaning.command == command)) {
            return std::string(meaning.text);
        }
    }
    return "not a documented failure of this command: " + std::string(std::strerror(value));
}

}  // namespace trak
