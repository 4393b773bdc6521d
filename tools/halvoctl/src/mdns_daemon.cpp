#include "mdns_daemon.h"

#include <systemd/sd-bus.h>

#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "hox/service_discovery/avahi/avahi_service_discovery_client.h"

namespace Hox::Ctl {

namespace Discovery = Hox::Service::Discovery;

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

/// The instances that a search has found so far.
class Found {
public:
    void add(const Discovery::NetworkService& service) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_services.emplace(service.name, service);
    }

    std::map<std::string, Discovery::NetworkService> all() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_services;
    }

private:
    std::mutex m_mutex;
    std::map<std::string, Discovery::NetworkService> m_services;  // GUARDED_BY(m_mutex)
};

using Searches = std::vector<Discovery::FutureOutcome<Discovery::NetworkService>>;

/// Browses for half of the time: the daemon knows its own services at once, but says only after a
/// second that there are no further ones.
Searches browse(Discovery::IServiceResolver& resolver, const std::string& capability,
                std::chrono::milliseconds limit) {
    Found found;
    const auto browsing = resolver.browse(
        Discovery::NetworkServiceType("capability"),
        [&found](const Discovery::Status& status, const Discovery::NetworkService& service) {
            if (status == Discovery::ServiceFound) {
                found.add(service);
            }
        },
        -1);
    std::this_thread::sleep_for(limit / 2);
    Searches searches;
    for (const auto& [name, instance] : found.all()) {
        if (name.compare(0, capability.size(), capability) == 0) {
            searches.push_back(resolver.resolve(name, instance.type, instance.interfaceIndex));
        }
    }
    return searches;
}

std::set<std::string> search(const std::string& capability, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::set<std::string> ids;
    Discovery::Avahi::AvahiServiceDiscoveryClient client;
    if (!client.start()) {
        return ids;
    }
    for (auto& resolving : browse(client.resolver(), capability, limit)) {
        if (resolving.content().wait_until(deadline) != std::future_status::ready) {
            continue;
        }
        const auto records = resolving.content().get().second.txtRecords;
        const auto published = records.find("capability");
        const auto id = records.find("service_id");
        if (published != records.end() && published->second == capability && id != records.end()) {
            ids.insert(id->second);
        }
    }
    return ids;
}

}  // namespace

std::string whyNoMdns(std::chrono::milliseconds limit) {
    const int result = askForVersion(limit);
    return result < 0 ? std::generic_category().message(-result) : "";
}

std::set<std::string> servicesWith(const std::string& capability, std::chrono::milliseconds limit) {
    if (!whyNoMdns(limit).empty()) {
        return {};
    }
    try {
        return search(capability, limit);
    } catch (const std::exception&) {
        return {};  // a daemon that ends just now
    }
}

}  // namespace Hox::Ctl
