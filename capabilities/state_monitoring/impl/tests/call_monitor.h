#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

#include "hox/testing/private_bus.h"

namespace Hox::Capability::StateMonitoring::Fixture {

/// Counts the calls to a name on a private bus, also while nobody owns the name.
class CallMonitor {
public:
    /// Sees all calls from here on. Throws std::runtime_error.
    CallMonitor(const Testing::PrivateBus& bus, const std::string& name);

    /// How many calls there have been. On one thread.
    int calls();

private:
    const std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)> m_bus;
    int m_calls = 0;
};

}  // namespace Hox::Capability::StateMonitoring::Fixture
