#include "mdns_daemon.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <system_error>

namespace Hox::Ctl {

namespace {

struct BusClose {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};

struct MessageFree {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

/// Calls the daemon without starting it; a negative number if that fails.
int askForVersion(std::chrono::milliseconds limit) {
    sd_bus* opened = nullptr;
    int result = sd_bus_open_system(&opened);
    if (result < 0) {
        return result;
    }
    const std::unique_ptr<sd_bus, BusClose> bus(opened);
    sd_bus_message* made = nullptr;
    result = sd_bus_message_new_method_call(bus.get(), &made, "org.freedesktop.Avahi", "/",
                                            "org.freedesktop.Avahi.Server", "GetVersionString");
    if (result < 0) {
        return result;
    }
    const std::unique_ptr<sd_bus_message, MessageFree> request(made);
    sd_bus_message_set_auto_start(request.get(), 0);
    sd_bus_message* answer = nullptr;
    const auto time = std::chrono::duration_cast<std::chrono::microseconds>(limit);
    result = sd_bus_call(bus.get(), request.get(), static_cast<std::uint64_t>(time.count()),
                         nullptr, &answer);
    sd_bus_message_unref(answer);
    return result;
}

}  // namespace

std::string whyNoMdns(std::chrono::milliseconds limit) {
    const int result = askForVersion(limit);
    return result < 0 ? std::generic_category().message(-result) : "";
}

}  // namespace Hox::Ctl
