#pragma once

#include <string>

namespace Hox::Testing {

/// Skips the running test for the reason; the caller leaves the test then.
///
/// Where the environment variable CI is set the test fails instead: nobody looks there for what has
/// been left out.
void skipOutsideCi(const std::string& reason);

}  // namespace Hox::Testing
