#include "context.h"

#include <utility>

namespace trakctl {

Context::Context(const Backend& backend, std::string device_path)
    : backend_(backend), device_path_(std::move(device_path)), proc_(backend.proc_root) {}

trak::Control& Context::control() {
    if (!control_) {
        control_.emplace(backend_.open_channel(device_path_));
    }
    return *control_;
}

}  // namespace trakctl
