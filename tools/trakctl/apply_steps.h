// Carrying out apply's plan, and what is done about the nodes already added
// when the driver refuses a step.
#pragma once

#include <trak/control.h>
#include <trak/error.h>

#include <string>

#include "apply_plan.h"

namespace trakctl {

// The driver refused a step of apply. It keeps the driver's error code and
// meaning; its message adds what became of the nodes added before.
class ApplyStepError : public trak::DriverError {
  public:
    ApplyStepError(const trak::DriverError& refusal, const std::string& aftermath);

    const char* what() const noexcept override { return message_.c_str(); }

  private:
    std::string message_;
};

// Makes the changes in order. When the driver refuses one, the nodes added
// so far are removed again, newest first, and an ApplyStepError is thrown.
// A snap added from saved COW files is kept, and so is its filter: removing
// a snap node deletes its COW files, and removing a filter removes its
// snaps, so either would destroy the snapshot that the files hold.
void carry_out(const ApplyPlan& plan, trak::Control& control);

}  // namespace trakctl
