// Polling for what the driver does in the background (kdirtyd).
#ifndef TRAK_TESTS_VM_SUPPORT_WAIT_H_
#define TRAK_TESTS_VM_SUPPORT_WAIT_H_

#include <chrono>
#include <functional>

namespace trak::vmtest {

// Checks `done` every 20 ms until it holds or `timeout` has passed; the
// last check's result.
bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_WAIT_H_
