#include "hox/testing/wait_until.h"

#include <thread>

namespace Hox::Testing {

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
    constexpr auto pollInterval = std::chrono::milliseconds(1);
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(pollInterval);
    }
    return true;
}

}  // namespace Hox::Testing
