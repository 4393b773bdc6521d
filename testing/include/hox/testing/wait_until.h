#pragma once

#include <chrono>
#include <functional>

namespace Hox::Testing {

/// Polls the condition until it holds. Returns whether it held before the time was over; the
/// condition is evaluated at least once, always on the calling thread.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds deadline = std::chrono::seconds(30));

}  // namespace Hox::Testing
