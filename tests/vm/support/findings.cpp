#include "support/findings.h"

namespace trak::vmtest {

std::ostream& Findings::Add() {
    ++count_;
    if (count_ > listed_) {
        return unlisted_;
    }
    return text_ << "\n  ";
}

::testing::AssertionResult Findings::Result(const std::string& what) const {
    if (count_ == 0) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << count_ << " " << what << ":" << text_.str() << (count_ > listed_ ? "\n  ..." : "");
}

}  // namespace trak::vmtest
