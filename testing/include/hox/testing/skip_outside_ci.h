#pragma once

#include <string>

namespace Hox::Testing {

/// Skips the running test for the reason; the caller then returns from the test.
///
/// If the environment variable CI is set, the test fails instead: nobody checks there for skipped
/// tests.
void skipOutsideCi(const std::string& reason);

}  // namespace Hox::Testing
