#include "call_monitor.h"

#include <stdexcept>

namespace Hox::Capability::StateMonitoring::Fixture {

namespace {

sd_bus* newBus() {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    return bus;
}

}  // namespace

CallMonitor::CallMonitor(const Testing::PrivateBus& bus, const std::string& name)
    : m_bus(newBus(), sd_bus_close_unref) {
    const auto calls = "type='method_call',destination='" + name + "'";
    if (!m_bus || sd_bus_set_address(m_bus.get(), bus.address().c_str()) < 0 ||
        sd_bus_set_bus_client(m_bus.get(), 1) < 0 || sd_bus_set_monitor(m_bus.get(), 1) < 0 ||
        sd_bus_start(m_bus.get()) < 0 ||
        sd_bus_call_method(m_bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus.Monitoring", "BecomeMonitor", nullptr, nullptr,
                           "asu", 1, calls.c_str(), 0) < 0) {
        throw std::runtime_error("the bus cannot be monitored");
    }
}

int CallMonitor::calls() {
    sd_bus_message* message = nullptr;
    while (sd_bus_process(m_bus.get(), &message) > 0) {
        if (message != nullptr && sd_bus_message_is_method_call(message, nullptr, nullptr) > 0) {
            ++m_calls;
        }
        sd_bus_message_unref(message);
    }
    return m_calls;
}

}  // namespace Hox::Capability::StateMonitoring::Fixture
