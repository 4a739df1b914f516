// Entry point of the VM suites. They load kernel modules, so they run only
// inside the test VM (TRAK_VM=1); listing the cases works anywhere. In the
// VM the XML results go to $TRAK_OUT/<program name>.xml unless
// --gtest_output says otherwise.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>

int main(int argc, char** argv) {
    // Set before InitGoogleTest, which sets up the XML output and lets the
    // command line override this default.
    if (const char* out = std::getenv("TRAK_OUT"); out != nullptr) {
        const std::string program = std::filesystem::path(argv[0]).filename();
        GTEST_FLAG_SET(output, std::string("xml:") + out + "/" + program + ".xml");
    }
    ::testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests)) {
        return RUN_ALL_TESTS();
    }
    const char* in_vm = std::getenv("TRAK_VM");
    if (in_vm == nullptr || std::string_view(in_vm) != "1") {
        std::cerr << argv[0] << ": loads kernel modules; run it inside the test VM (TRAK_VM=1)\n";
        return 2;
    }
    return RUN_ALL_TESTS();
}
