// What the verbs work on: the driver's control device and its /proc tree.
#pragma once

#include <trak/channel.h>
#include <trak/control.h>
#include <trak/proc.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace trakctl {

// Where the driver is reached. The real one opens the device file; tests
// put a fake driver and a fake /proc tree here.
struct Backend {
    std::function<std::unique_ptr<trak::IoctlChannel>(const std::string& device_path)> open_channel;
    std::filesystem::path proc_root;
    // The mount table (/proc/self/mounts), where apply sees whether a
    // partition is mounted.
    std::filesystem::path mounts_file;
};

// The backend opened for one run; the control device is opened only when a
// verb first needs it.
class Context {
  public:
    Context(const Backend& backend, std::string device_path);

    const std::string& device_path() const noexcept { return device_path_; }
    trak::Control& control();
    const trak::ProcTree& proc() const noexcept { return proc_; }
    const std::filesystem::path& mounts_file() const noexcept { return backend_.mounts_file; }

  private:
    const Backend& backend_;
    std::string device_path_;
    trak::ProcTree proc_;
    std::optional<trak::Control> control_;
};

}  // namespace trakctl
