#include "systemd_stand_in.h"

#include <poll.h>

#include <stdexcept>
#include <utility>

namespace Hox::Capability::StateMonitoring::Fixture {

namespace {

constexpr auto path = "/org/freedesktop/systemd1";
constexpr auto manager = "org.freedesktop.systemd1.Manager";
constexpr auto properties = "org.freedesktop.DBus.Properties";

}  // namespace

SystemdStandIn::SystemdStandIn(const Testing::PrivateBus& bus, std::string state)
    : m_state(std::move(state)) {
    if (sd_bus_new(&m_bus) < 0 || sd_bus_set_address(m_bus, bus.address().c_str()) < 0 ||
        sd_bus_set_bus_client(m_bus, 1) < 0 || sd_bus_start(m_bus) < 0 ||
        sd_bus_add_filter(m_bus, nullptr, answerCall, this) < 0 ||
        sd_bus_request_name(m_bus, "org.freedesktop.systemd1", 0) < 0) {
        sd_bus_unref(m_bus);
        throw std::runtime_error("no place on the bus");
    }
    m_thread = std::thread([this] { serve(); });
}

SystemdStandIn::~SystemdStandIn() {
    m_ends = true;
    m_thread.join();
    sd_bus_close_unref(m_bus);
}

void SystemdStandIn::setState(const std::string& state) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_state = state;
    sd_bus_emit_signal(m_bus, path, properties, "PropertiesChanged", "sa{sv}as", manager, 0, 0);
    sd_bus_flush(m_bus);
}

void SystemdStandIn::finishStartup() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::uint64_t time = 1;
    sd_bus_emit_signal(m_bus, path, manager, "StartupFinished", "tttttt", time, time, time, time,
                       time, time);
    sd_bus_flush(m_bus);
}

void SystemdStandIn::serve() {
    constexpr int limit = 10;
    while (!m_ends) {
        int processed = 0;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            processed = sd_bus_process(m_bus, nullptr);
        }
        if (processed <= 0) {
            pollfd readable{sd_bus_get_fd(m_bus), POLLIN, 0};
            poll(&readable, 1, limit);
        }
    }
}

int SystemdStandIn::answerCall(sd_bus_message* call, void* self, sd_bus_error* /*error*/) noexcept {
    return static_cast<SystemdStandIn*>(self)->answer(call);
}

int SystemdStandIn::answer(sd_bus_message* call) {
    if (sd_bus_message_is_method_call(call, manager, "Subscribe") > 0) {
        ++m_subscriptions;
        return sd_bus_reply_method_return(call, "");
    }
    if (sd_bus_message_is_method_call(call, properties, "Get") > 0) {
        ++m_questions;
        return m_answers ? sd_bus_reply_method_return(call, "v", "s", m_state.c_str()) : 1;
    }
    return 0;
}

}  // namespace Hox::Capability::StateMonitoring::Fixture
