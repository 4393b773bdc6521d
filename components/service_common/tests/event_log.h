#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "hox/testing/notify_socket.h"

namespace Hox::Service::Fixture {

/// The events of a run of the frame, in order: hooks, log lines of the frame, notifications.
/// Outlives the frame.
class EventLog {
public:
    /// Sets up the logger of the frame, so that its lines are events from here on.
    explicit EventLog(Testing::NotifySocket& notifySocket);
    ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    /// Adds an event after the notifications that have arrived meanwhile. Callable from any thread.
    void add(const std::string& event);

    /// All events so far, including the notifications. Callable from any thread.
    std::vector<std::string> all();

    /// How often the event has occurred.
    std::size_t count(const std::string& event);

private:
    void takeNotifications();

    Testing::NotifySocket& m_notifySocket;
    std::mutex m_mutex;                 // taken before the socket's mutex
    std::size_t m_taken = 0;            // GUARDED_BY(m_mutex)
    std::vector<std::string> m_events;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Service::Fixture
