// CMake's project version is the one version: the Debian changelog and the
// manual pages, which cannot take it from CMake, must say the same.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace {

std::string first_line(const std::string& relative) {
    std::ifstream in(std::string(TRAK_SOURCE_DIR) + "/" + relative);
    std::string line;
    std::getline(in, line);
    return line;
}

TEST(Version, DebianChangelogHasTheProjectVersion) {
    EXPECT_TRUE(first_line("debian/changelog").starts_with("trak (" TRAK_PROJECT_VERSION ")"))
        << first_line("debian/changelog");
}

TEST(Version, ManualPagesHaveTheProjectVersion) {
    for (const char* page : {"man/trak.4", "man/trakctl.8", "man/trak.conf.5"}) {
        EXPECT_NE(first_line(page).find("\"trak " TRAK_PROJECT_VERSION "\""), std::string::npos)
            << page << ": " << first_line(page);
    }
}

}  // namespace
