#include "hox/testing/notify_socket.h"

#include <algorithm>
#include <cstdlib>

#include "hox/testing/wait_until.h"

namespace Hox::Testing {

namespace {

constexpr auto variable = "NOTIFY_SOCKET";

}  // namespace

NotifySocket::NotifySocket() {
    if (const char* former = std::getenv(variable); former != nullptr) {
        m_formerValue = former;
    }
    setenv(variable, address().c_str(), 1);
}

NotifySocket::~NotifySocket() {
    if (m_formerValue) {
        setenv(variable, m_formerValue->c_str(), 1);
    } else {
        unsetenv(variable);
    }
}

std::string NotifySocket::address() const {
    return m_receiver.address();
}

std::vector<std::string> NotifySocket::messages() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_receiver.messages();
}

bool NotifySocket::waitFor(const std::string& message, std::chrono::milliseconds deadline) {
    return waitUntil(
        [&] {
            const auto all = messages();
            return std::find(all.begin(), all.end(), message) != all.end();
        },
        deadline);
}

}  // namespace Hox::Testing
