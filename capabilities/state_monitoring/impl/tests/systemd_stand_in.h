#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include <systemd/sd-bus.h>

#include "hox/testing/private_bus.h"

namespace Hox::Capability::StateMonitoring::Fixture {

/// Stands on a private bus for the machine's service manager, which cannot be brought into any
/// state that a test wants.
class SystemdStandIn {
public:
    /// Takes the manager's name on the bus. Throws std::runtime_error.
    SystemdStandIn(const Testing::PrivateBus& bus, std::string state);
    ~SystemdStandIn();
    SystemdStandIn(const SystemdStandIn&) = delete;
    SystemdStandIn& operator=(const SystemdStandIn&) = delete;

    /// Changes the state, and sends the signal of changed properties.
    void setState(const std::string& state);

    /// Sends the signal of the end of the start.
    void finishStartup();

    /// Whether questions for the state are answered.
    void setAnswers(bool answers) { m_answers = answers; }

    /// How often somebody has subscribed, and has asked for the state.
    int subscriptions() const { return m_subscriptions; }
    int questions() const { return m_questions; }

private:
    static int answerCall(sd_bus_message* call, void* self, sd_bus_error* error) noexcept;
    int answer(sd_bus_message* call);
    void serve();

    sd_bus* m_bus = nullptr;  // GUARDED_BY(m_mutex)
    std::mutex m_mutex;
    std::string m_state;  // GUARDED_BY(m_mutex)
    std::atomic<bool> m_answers{true};
    std::atomic<int> m_subscriptions{0};
    std::atomic<int> m_questions{0};
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};

}  // namespace Hox::Capability::StateMonitoring::Fixture
