// A directory under /tmp that lives as long as the object.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace trak_test {

class TempDir {
  public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    TempDir(TempDir&&) = delete;
    TempDir& operator=(TempDir&&) = delete;
    ~TempDir();

    const std::filesystem::path& path() const { return path_; }

    // Writes `text` to the file at `relative`, making its directories.
    void write(const std::filesystem::path& relative, std::string_view text) const;
    std::string read(const std::filesystem::path& relative) const;

  private:
    std::filesystem::path path_;
};

}  // namespace trak_test
