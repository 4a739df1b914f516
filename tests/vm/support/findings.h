// What a check found wrong: the first few findings in full, the rest only
// counted, so that a failure says what went wrong without drowning it.
#ifndef TRAK_TESTS_VM_SUPPORT_FINDINGS_H_
#define TRAK_TESTS_VM_SUPPORT_FINDINGS_H_

#include <gtest/gtest.h>

#include <ostream>
#include <sstream>
#include <string>

namespace trak::vmtest {

class Findings {
  public:
    // Lists the first `listed` findings.
    explicit Findings(int listed = 8) : listed_(listed) {}

    // The stream to describe one more finding on.
    std::ostream& Add();
    [[nodiscard]] int count() const { return count_; }
    // Success when nothing was found; else "<count> <what>:" and the
    // listed findings, one a line.
    [[nodiscard]] ::testing::AssertionResult Result(const std::string& what) const;

  private:
    int listed_;
    int count_ = 0;
    std::ostringstream text_;
    std::ostringstream unlisted_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_FINDINGS_H_
