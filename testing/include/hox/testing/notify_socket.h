#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hox/testing/datagram_receiver.h"

namespace Hox::Testing {

/// Receives the messages of the process, or of a child, to its service manager.
///
/// During its lifetime NOTIFY_SOCKET names its socket; afterwards the variable has its previous
/// value. Create and destroy it while no other thread reads the environment; the functions may be
/// called from any thread.
class NotifySocket {
public:
    /// Binds a socket under a unique name; throws std::system_error.
    NotifySocket();
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;
    NotifySocket(NotifySocket&&) = delete;
    NotifySocket& operator=(NotifySocket&&) = delete;

    /// The value for NOTIFY_SOCKET, for the environment of a child that gets its own environment.
    std::string address() const;

    /// All messages that have arrived so far, in order; never blocks.
    std::vector<std::string> messages();

    /// Waits until exactly this message has arrived; false if the time is over before.
    bool waitFor(const std::string& message,
                 std::chrono::milliseconds deadline = std::chrono::seconds(30));

private:
    std::mutex m_mutex;
    DatagramReceiver m_receiver;  // GUARDED_BY(m_mutex)
    std::optional<std::string> m_formerValue;
};

}  // namespace Hox::Testing
