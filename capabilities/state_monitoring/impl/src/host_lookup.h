#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "end_signal.h"

namespace Hox::Capability::StateMonitoring {

/// Looks up the address of a host on a separate thread and repeats that until the address is known.
///
/// The look-up itself runs in another process, "getent ahosts", which can be killed at any time:
/// without a name server the resolver takes half a minute, and a call of the C library cannot be
/// cancelled.
class HostLookup {
public:
    /// Starts the thread, which calls onFailure after the first attempt if that has failed. Throws
    /// std::system_error if no thread or descriptor can be created.
    HostLookup(std::string host, std::function<void()> onFailure);

    /// Ends the look-up at once.
    ~HostLookup();
    HostLookup(const HostLookup&) = delete;
    HostLookup(HostLookup&&) = delete;
    HostLookup& operator=(const HostLookup&) = delete;
    HostLookup& operator=(HostLookup&&) = delete;

    /// The address of the host as a number, once it is known: one of IPv4 if there is one. Any
    /// thread.
    std::optional<std::string> address() const;

    /// Waits until the first attempt has ended, but not longer than the limit. Any thread.
    void waitForFirstAttempt(std::chrono::milliseconds limit) const;

private:
    void run();
    std::optional<std::string> askOnce() const;
    std::string readAnswer(int output) const;

    const std::string m_host;
    const std::function<void()> m_onFailure;
    EndSignal m_end;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    bool m_hasTried = false;               // GUARDED_BY(m_mutex)
    std::optional<std::string> m_address;  // GUARDED_BY(m_mutex)
    std::thread m_thread;
};

}  // namespace Hox::Capability::StateMonitoring
