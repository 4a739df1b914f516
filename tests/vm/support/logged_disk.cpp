#include "support/logged_disk.h"

#include "support/command.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kSector = 512;

}  // namespace

LoggedDisk::~LoggedDisk() { EXPECT_TRUE(Remove()); }

::testing::AssertionResult LoggedDisk::MakeDevice(const std::string& name,
                                                  const std::string& table) {
    if (::testing::AssertionResult made = Succeeds({"dmsetup", "create", name, "--table", table});
        !made) {
        return made;
    }
    made_.push_back(name);
    // Without udev nobody makes the /dev/mapper name.
    return Succeeds({"dmsetup", "mknodes", name});
}

::testing::AssertionResult LoggedDisk::Create(const std::string& disk, const std::string& log_disk,
                                              const std::vector<Part>& parts) {
    const CommandResult sectors = RunCommand({"blockdev", "--getsz", disk});
    if (sectors.status != 0) {
        return ::testing::AssertionFailure()
               << "blockdev --getsz " << disk << ": " << sectors.output;
    }
    if (::testing::AssertionResult loaded = Succeeds({"modprobe", "-a", "dm-log-writes"});
        !loaded) {
        return loaded;
    }
    // A log that starts with a zeroed super block: the device writes its
    // own only at its first flush or mark.
    if (::testing::AssertionResult zeroed =
            Succeeds({"dd", "if=/dev/zero", "of=" + log_disk, "bs=4096", "count=1", "oflag=direct",
                      "status=none"});
        !zeroed) {
        return zeroed;
    }
    const std::string whole = sectors.output.substr(0, sectors.output.find('\n'));
    if (::testing::AssertionResult made =
            MakeDevice(name_, "0 " + whole + " log-writes " + disk + " " + log_disk);
        !made) {
        return made;
    }
    for (const Part& part : parts) {
        const std::string table = "0 " + std::to_string(part.bytes / kSector) + " linear " +
                                  Path(name_) + " " + std::to_string(part.offset / kSector);
        if (::testing::AssertionResult made = MakeDevice(part.name, table); !made) {
            return made;
        }
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult LoggedDisk::Mark(const std::string& name) const {
    return Succeeds({"dmsetup", "message", name_, "0", "mark", name});
}

::testing::AssertionResult LoggedDisk::Remove() {
    while (!made_.empty()) {
        if (::testing::AssertionResult removed = Succeeds({"dmsetup", "remove", made_.back()});
            !removed) {
            return removed;
        }
        made_.pop_back();
    }
    return ::testing::AssertionSuccess();
}

}  // namespace trak::vmtest
