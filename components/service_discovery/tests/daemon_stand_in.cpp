#include "daemon_stand_in.h"

#include <stdexcept>
#include <utility>

namespace Hox::Service::Discovery::Avahi {

namespace {

constexpr auto server = "org.freedesktop.Avahi.Server";
constexpr auto group = "org.freedesktop.Avahi.EntryGroup";
constexpr auto browser = "org.freedesktop.Avahi.ServiceBrowser";
constexpr auto groupPath = "/group";
constexpr auto browserPath = "/browser";
constexpr int running = 2;
constexpr int registering = 1;

bool asks(sd_bus_message* call, const char* interface, const char* member) {
    return sd_bus_message_is_method_call(call, interface, member) > 0;
}

int fail(sd_bus_message* call, const std::string& error) {
    return sd_bus_reply_method_errorf(call, error.c_str(), "as told");
}

/// A signal to the caller alone, as the daemon sends them.
template <typename... Arguments>
void tell(sd_bus_message* call, const char* path, const char* interface, const char* member,
          const char* types, Arguments... arguments) {
    sd_bus_message* signal = nullptr;
    sd_bus_message_new_signal(sd_bus_message_get_bus(call), &signal, path, interface, member);
    sd_bus_message_append(signal, types, arguments...);
    sd_bus_message_set_destination(signal, sd_bus_message_get_sender(call));
    sd_bus_send(nullptr, signal, nullptr);
    sd_bus_message_unref(signal);
}

}  // namespace

DaemonStandIn::DaemonStandIn(const Hox::Testing::PrivateBus& bus, Behaviour behaviour)
    : m_behaviour(std::move(behaviour)) {
    if (sd_bus_new(&m_bus) < 0 || sd_bus_set_address(m_bus, bus.address().c_str()) < 0 ||
        sd_bus_set_bus_client(m_bus, 1) < 0 || sd_bus_start(m_bus) < 0 ||
        sd_bus_add_filter(m_bus, nullptr, answerCall, this) < 0 ||
        sd_bus_request_name(m_bus, "org.freedesktop.Avahi", 0) < 0) {
        sd_bus_unref(m_bus);
        throw std::runtime_error("no place on the bus");
    }
    m_thread = std::thread([this] { serve(); });
}

DaemonStandIn::~DaemonStandIn() {
    m_ends = true;
    m_thread.join();
    sd_bus_close_unref(m_bus);
}

void DaemonStandIn::serve() {
    constexpr std::uint64_t limit = 10'000;
    while (!m_ends) {
        if (sd_bus_process(m_bus, nullptr) == 0) {
            sd_bus_wait(m_bus, limit);
        }
    }
}

int DaemonStandIn::answerCall(sd_bus_message* call, void* self, sd_bus_error*) noexcept {
    return static_cast<const DaemonStandIn*>(self)->answer(call);
}

int DaemonStandIn::answer(sd_bus_message* call) const {
    if (asks(call, server, nullptr)) {
        return answerServer(call);
    }
    if (asks(call, group, nullptr)) {
        return answerGroup(call);
    }
    return asks(call, browser, nullptr) ? sd_bus_reply_method_return(call, "") : 0;
}

int DaemonStandIn::answerServer(sd_bus_message* call) const {
    if (asks(call, server, "GetAPIVersion")) {
        return sd_bus_reply_method_return(call, "u", m_behaviour.apiVersion);
    }
    if (asks(call, server, "GetState")) {
        return sd_bus_reply_method_return(call, "i", running);
    }
    if (asks(call, server, "EntryGroupNew")) {
        return m_behaviour.groupError.empty() ? sd_bus_reply_method_return(call, "o", groupPath)
                                              : fail(call, m_behaviour.groupError);
    }
    if (asks(call, server, "ServiceBrowserNew")) {
        const int result = sd_bus_reply_method_return(call, "o", browserPath);
        tell(call, browserPath, browser, "CacheExhausted", "");
        tell(call, browserPath, browser, "Failure", "s", "org.freedesktop.Avahi.NoNetworkError");
        return result;
    }
    return 0;
}

int DaemonStandIn::answerGroup(sd_bus_message* call) const {
    if (asks(call, group, "GetState")) {
        return sd_bus_reply_method_return(call, "i", 0);
    }
    if (asks(call, group, "IsEmpty")) {
        return sd_bus_reply_method_return(call, "b", static_cast<int>(m_behaviour.groupsAreEmpty));
    }
    if (!asks(call, group, "Commit")) {
        return sd_bus_reply_method_return(call, "");
    }
    if (!m_behaviour.commitError.empty()) {
        return fail(call, m_behaviour.commitError);
    }
    const int result = sd_bus_reply_method_return(call, "");
    for (const int state : {registering, m_behaviour.groupState}) {
        tell(call, groupPath, group, "StateChanged", "is", state,
             m_behaviour.groupStateError.c_str());
    }
    return result;
}

}  // namespace Hox::Service::Discovery::Avahi
