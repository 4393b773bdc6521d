#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "hox/testing/notify_socket.h"

namespace Hox::Service::Fixture {

/// What has happened in a run of the frame, in order: hooks, log lines of the frame, notifications.
/// Outlives the frame.
class EventLog {
public:
    /// Sets the logger of the frame up, so that its lines are events from here on.
    explicit EventLog(Testing::NotifySocket& notifySocket);
    ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    /// Adds an event behind the notifications that have come meanwhile. Any thread.
    void add(const std::string& event);

    /// All events so far, the notifications included. Any thread.
    std::vector<std::string> all();

    /// How often the event is there.
    std::size_t count(const std::string& event);

private:
    void takeNotifications();

    Testing::NotifySocket& m_notifySocket;
    std::mutex m_mutex;                 // taken before the socket's
    std::size_t m_taken = 0;            // GUARDED_BY(m_mutex)
    std::vector<std::string> m_events;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Service::Fixture
