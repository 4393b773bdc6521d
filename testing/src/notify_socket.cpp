#include "hox/testing/notify_socket.h"

#include <algorithm>
#include <cstdlib>

#include "hox/testing/wait_until.h"

namespace Hox::Testing {

namespace {

constexpr auto variable = "NOTIFY_SOCKET";

}  // namespace

NotifySocket::NotifySocket() : m_receiver(m_folder / "notify") {
    if (const char* former = std::getenv(variable); former != nullptr) {
        m_formerValue = former;
    }
    setenv(variable, path().c_str(), 1);
}

NotifySocket::~NotifySocket() {
    if (m_formerValue) {
        setenv(variable, m_formerValue->c_str(), 1);
    } else {
        unsetenv(variable);
    }
}

std::string NotifySocket::path() const {
    return m_folder / "notify";
}

const std::vector<std::string>& NotifySocket::messages() {
    return m_receiver.messages();
}

bool NotifySocket::waitFor(const std::string& message, std::chrono::milliseconds deadline) {
    return waitUntil(
        [&] {
            const auto& all = messages();
            return std::find(all.begin(), all.end(), message) != all.end();
        },
        deadline);
}

}  // namespace Hox::Testing
