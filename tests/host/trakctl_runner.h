// Runs trakctl's command line in-process against a fake driver and a fake
// /proc tree.
#pragma once

#include <cli.h>

#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include "fake_driver.h"
#include "temp_dir.h"

namespace trak_test {

struct RunResult {
    int status;
    std::string out;
    std::string err;
};

class TrakctlRunner {
  public:
    TrakctlRunner();

    RunResult run(std::initializer_list<std::string_view> args) const;
    RunResult run(std::span<const std::string_view> args) const;

    FakeDriver& driver() { return driver_; }
    const FakeDriver& driver() const { return driver_; }
    const TempDir& proc() const { return proc_; }
    // The device paths that trakctl opened, in order.
    const std::vector<std::string>& opened() const { return opened_; }
    // Makes opening the control device fail with ENOENT.
    void remove_device() { device_present_ = false; }

  private:
    FakeDriver driver_;
    TempDir proc_;
    std::vector<std::string> opened_;
    bool device_present_ = true;
    trakctl::Backend backend_;
};

}  // namespace trak_test
