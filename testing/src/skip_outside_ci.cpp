#include "hox/testing/skip_outside_ci.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace Hox::Testing {

void skipOutsideCi(const std::string& reason) {
    if (std::getenv("CI") != nullptr) {
        FAIL() << reason;
    }
    GTEST_SKIP() << reason;
}

}  // namespace Hox::Testing
