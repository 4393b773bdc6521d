#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "hox/testing/private_bus.h"

namespace Hox::Service::Discovery::Avahi {

/// Takes the mDNS daemon's place on a bus, for what the real one cannot be made to do: it fails
/// as configured. Everything else succeeds at once. Errors are D-Bus names of Avahi's.
class DaemonStandIn {
public:
    struct Behaviour {
        std::uint32_t apiVersion = 0x0203;
        std::string groupError = "";   ///< of the making of an entry group
        std::string commitError = "";  ///< of the commit of an entry group
        bool groupsAreEmpty = false;   ///< whatever has been added
        int groupState = 2;            ///< reported after the commit: it is established
        std::string groupStateError = "org.freedesktop.Avahi.Success";  ///< reported with the state
    };

    /// Returns once it is on the bus. Throws std::runtime_error.
    DaemonStandIn(const Hox::Testing::PrivateBus& bus, Behaviour behaviour);

    /// Leaves the bus.
    ~DaemonStandIn();

    DaemonStandIn(const DaemonStandIn&) = delete;
    DaemonStandIn& operator=(const DaemonStandIn&) = delete;

private:
    static int answerCall(sd_bus_message* call, void* self, sd_bus_error* error) noexcept;
    int answer(sd_bus_message* call) const;
    int answerServer(sd_bus_message* call) const;
    int answerGroup(sd_bus_message* call) const;
    void serve();

    const Behaviour m_behaviour;
    sd_bus* m_bus = nullptr;
    std::atomic<bool> m_ends = false;
    std::thread m_thread;
};

}  // namespace Hox::Service::Discovery::Avahi
