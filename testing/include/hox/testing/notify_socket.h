#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hox/testing/datagram_receiver.h"

namespace Hox::Testing {

/// Receives what the process, or a child of it, tells its service manager.
///
/// While it lives NOTIFY_SOCKET names its socket; afterwards the variable is as before. Begin and
/// end it while no other thread reads the environment; the rest may be called from any thread.
class NotifySocket {
public:
    /// Binds a socket under a name of its own; throws std::system_error.
    NotifySocket();
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;
    NotifySocket(NotifySocket&&) = delete;
    NotifySocket& operator=(NotifySocket&&) = delete;

    /// The value for NOTIFY_SOCKET, for the environment of a child that gets one of its own.
    std::string address() const;

    /// All messages that have arrived so far, in order; never blocks.
    std::vector<std::string> messages();

    /// Waits until this very message has arrived; false if the time is over before.
    bool waitFor(const std::string& message,
                 std::chrono::milliseconds deadline = std::chrono::seconds(30));

private:
    std::mutex m_mutex;
    DatagramReceiver m_receiver;  // GUARDED_BY(m_mutex)
    std::optional<std::string> m_formerValue;
};

}  // namespace Hox::Testing
