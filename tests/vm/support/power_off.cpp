#include "support/power_off.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/proc_files.h"

namespace trak::vmtest {

void PowerOffNow(const std::string& marker, const std::string& note) {
    const char* out = std::getenv("TRAK_OUT");
    ASSERT_NE(out, nullptr);
    const std::string path = std::string(out) + "/" + marker;
    std::ofstream(path) << note << '\n';
    ASSERT_TRUE(std::filesystem::exists(path)) << "the marker could not be left";
    ASSERT_EQ(WriteText("/proc/sysrq-trigger", "o"), 0);
    std::this_thread::sleep_for(std::chrono::seconds(60));
    FAIL() << "the VM is still running a minute after the power-off";
}

}  // namespace trak::vmtest
