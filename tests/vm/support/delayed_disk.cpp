#include "support/delayed_disk.h"

#include "support/command.h"

namespace trak::vmtest {

DelayedDisk::~DelayedDisk() {
    if (created_) {
        EXPECT_TRUE(Succeeds({"dmsetup", "remove", name_}));
    }
}

std::string DelayedDisk::path() const { return "/dev/mapper/" + name_; }

std::string DelayedDisk::Table(std::chrono::milliseconds write_delay) const {
    const std::string delay = std::to_string(write_delay.count());
    return "0 " + sectors_ + " delay " + disk_ + " 0 0 " + disk_ + " 0 " + delay;
}

::testing::AssertionResult DelayedDisk::Create(const std::string& disk,
                                               std::chrono::milliseconds write_delay) {
    const CommandResult sectors = RunCommand({"blockdev", "--getsz", disk});
    if (sectors.status != 0) {
        return ::testing::AssertionFailure()
               << "blockdev --getsz " << disk << ": " << sectors.output;
    }
    disk_ = disk;
    sectors_ = sectors.output.substr(0, sectors.output.find('\n'));
    if (::testing::AssertionResult loaded = Succeeds({"modprobe", "dm-delay"}); !loaded) {
        return loaded;
    }
    if (::testing::AssertionResult made =
            Succeeds({"dmsetup", "create", name_, "--table", Table(write_delay)});
        !made) {
        return made;
    }
    created_ = true;
    // Without udev nobody makes the /dev/mapper name.
    return Succeeds({"dmsetup", "mknodes", name_});
}

::testing::AssertionResult DelayedDisk::SetWriteDelay(std::chrono::milliseconds write_delay) {
    if (::testing::AssertionResult loaded =
            Succeeds({"dmsetup", "reload", name_, "--table", Table(write_delay)});
        !loaded) {
        return loaded;
    }
    return Succeeds({"dmsetup", "resume", name_});
}

}  // namespace trak::vmtest
