// The control device under a seeded random stream of commands: the driver
// must answer every call, stay free of kernel reports (KASAN, lockdep... on
// the debug kernel), unload cleanly and leak nothing (kmemleak, where the
// kernel has it).
//
// TRAK_FUZZ_SEED (default 1) and TRAK_FUZZ_CALLS (default 100000) choose
// the run; a failure names the seed, which replays the same calls.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "fuzz/ioctl_fuzzer.h"
#include "fuzz/kmemleak.h"
#include "support/control_device.h"
#include "support/module_test.h"
#include "support/node_commands.h"
#include "support/test_disks.h"
#include "trak_ioctl.h"

namespace trak::vmtest {
namespace {

namespace fs = std::filesystem;

constexpr const char* kScratch = "/tmp/trak-fuzz";
constexpr const char* kConsoleLevels = "/proc/sys/kernel/printk";
// Kernel log records are read this often, well before the ring buffer
// could wrap over ones not yet read.
constexpr std::uint64_t kCallsPerLogRead = 256;
// kmemleak reports only objects older than this.
constexpr std::chrono::seconds kLeakMinAge{6};

std::uint64_t EnvNumber(const char* name, std::uint64_t fallback) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::stoull(value) : fallback;
}

std::string ReadLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

void WriteLine(const std::string& path, const std::string& line) {
    std::ofstream(path) << line << "\n";
}

// Directories for bitmap files, and files of every odd kind.
FuzzPaths MakePaths() {
    const std::string scratch = kScratch;
    fs::remove_all(scratch);
    fs::create_directories(scratch + "/bitmaps");
    fs::create_directories(scratch + "/other-bitmaps");
    std::ofstream(scratch + "/regular") << "not a device\n";
    mkfifo((scratch + "/fifo").c_str(), 0600);
    fs::create_symlink("loop-b", scratch + "/loop-a");
    fs::create_symlink("loop-a", scratch + "/loop-b");
    fs::create_symlink("/nonexistent/target", scratch + "/dangling");
    fs::create_symlink(kTrackedDisk, scratch + "/link-to-disk");
    return FuzzPaths{
        {kTrackedDisk, kSpareDisk, scratch + "/link-to-disk", "/dev/trak0", "/dev/loop0"},
        {scratch + "/bitmaps", scratch + "/other-bitmaps", "/tmp"},
        {"/dev/null", "/dev/zero", "/dev/trakctl", "/proc/self/status", "/proc", "/sys/kernel", "/",
         scratch + "/regular", scratch + "/fifo", scratch + "/loop-a", scratch + "/dangling",
         "/nonexistent", "relative/path", "/tmp//./bitmaps/../", "/dev/vd"},
    };
}

class IoctlFuzzTest : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        paths_ = MakePaths();
        if (Kmemleak::Available()) {
            Kmemleak::Forget();
        }
        // The driver logs an error for most calls: the console would make
        // the run crawl. Reports are still read from the kernel log.
        console_levels_ = ReadLine(kConsoleLevels);
        WriteLine(kConsoleLevels, "1");
        ASSERT_EQ(LoadDriver("trak_debug=0"), 0);
        ASSERT_EQ(control_.Open(), 0);
    }

    void TearDown() override {
        for (std::int32_t minor = 0; minor <= kHighestMinor; ++minor) {
            (void)StopNode(control_, minor);
            (void)DeleteNode(control_, minor);
        }
        control_.Close();
        if (!console_levels_.empty()) {
            WriteLine(kConsoleLevels, console_levels_);
        }
        ModuleTest::TearDown();
        if (Kmemleak::Available()) {
            std::this_thread::sleep_for(kLeakMinAge);
            EXPECT_EQ(Kmemleak::NewLeaks(), "") << "kmemleak found leaks";
        }
        fs::remove_all(kScratch);
    }

    static constexpr std::int32_t kHighestMinor = 255;
    ControlDevice control_;
    FuzzPaths paths_;
    std::string console_levels_;
};

TEST_F(IoctlFuzzTest, SurvivesRandomCommands) {
    const std::uint64_t seed = EnvNumber("TRAK_FUZZ_SEED", 1);
    const std::uint64_t calls = EnvNumber("TRAK_FUZZ_CALLS", 100000);
    RecordProperty("seed", std::to_string(seed));
    IoctlFuzzer fuzzer(seed, control_, paths_);

    const auto start = std::chrono::steady_clock::now();
    for (std::uint64_t i = 1; i <= calls; ++i) {
        fuzzer.Step();
        if (i % kCallsPerLogRead == 0) {
            (void)log().Records();
        }
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::ostringstream summary;
    summary << calls << " calls with seed " << seed << " in " << seconds << " s ("
            << static_cast<std::uint64_t>(static_cast<double>(calls) / seconds)
            << " per second); errno counts:";
    std::uint64_t succeeded = 0;
    for (const auto& [error, count] : fuzzer.outcomes()) {
        summary << " " << error << "=" << count;
        succeeded += error == 0 ? count : 0;
    }
    std::cout << summary.str() << "\n";
    RecordProperty("summary", summary.str());
    // Calls that got through the checks to real work, not only refusals.
    EXPECT_GT(succeeded, calls / 100) << summary.str();
    // The driver still answers.
    EXPECT_EQ(ListNodes(control_, TRAK_DEV_FILTER).error, 0) << "seed " << seed;
}

}  // namespace
}  // namespace trak::vmtest
