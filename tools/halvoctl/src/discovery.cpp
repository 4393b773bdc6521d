#include "discovery.h"

#include <algorithm>
#include <future>
#include <map>
#include <tuple>

#include "ctl_error.h"
#include "hox/cpputil/error/error.h"
#include "hox/service_discovery/avahi/avahi_service_discovery_client.h"
#include "mdns_daemon.h"
#include "printable.h"

namespace Hox::Ctl {

namespace Discovery = Service::Discovery;

namespace {

using SteadyClock = std::chrono::steady_clock;

const std::string mark = "mdns:";

/// Waits for the future in steps, so that the user can end it. Returns false at the deadline.
template <typename T>
bool isReady(std::future<T>& future, const Interrupt& interrupt, SteadyClock::time_point deadline) {
    constexpr std::chrono::milliseconds step(20);
    while (future.wait_for(step) != std::future_status::ready) {
        if (interrupt.isRequested()) {
            throw CtlError(ExitCode::Interrupted, "");
        }
        if (SteadyClock::now() >= deadline) {
            return false;
        }
    }
    return true;
}

/// The same, but throws CtlError at the deadline.
template <typename T>
T waitFor(std::future<T>& future, const Interrupt& interrupt, SteadyClock::time_point deadline) {
    if (!isReady(future, interrupt, deadline)) {
        throw CtlError(ExitCode::Unreachable, "the mDNS daemon does not answer");
    }
    return future.get();
}

/// The connection to the daemon, which is there when it has been made.
class Daemon {
public:
    Daemon(const Interrupt& interrupt, SteadyClock::time_point deadline) {
        // Without a daemon the start waits for ever.
        auto started = std::async(std::launch::async, [this] { return m_client.start(); });
        try {
            waitFor(started, interrupt, deadline);
        } catch (const CtlError&) {
            m_client.cancel();
            throw;
        }
    }

    Discovery::IServiceResolver& resolver() { return m_client.resolver(); }

private:
    Discovery::Avahi::AvahiServiceDiscoveryClient m_client;
};

/// Without a daemon everything would wait until the deadline.
void checkDaemon(std::chrono::milliseconds time) {
    constexpr std::chrono::milliseconds longest(1000);
    const auto reason = whyNoMdns(std::min(time, longest));
    if (!reason.empty()) {
        throw CtlError(ExitCode::Unreachable, "there is no mDNS daemon: " + reason);
    }
}

std::vector<FoundCapability> ask(Daemon& daemon, const Interrupt& interrupt,
                                 SteadyClock::time_point deadline, const Note& note) {
    auto browsing = daemon.resolver().browse(Discovery::NetworkServiceType("capability"), -1);
    const auto [outcome, seen] = waitFor(browsing.content(), interrupt, deadline);
    if (outcome != Discovery::ServiceFound) {
        throw CtlError(ExitCode::Unreachable, "the mDNS daemon finds nothing");
    }
    // One instance may be seen on several interfaces.
    std::map<std::string, Discovery::FutureOutcome<Discovery::NetworkService>> requests;
    for (const auto& instance : seen) {
        if (requests.count(instance.name) == 0) {
            requests.emplace(instance.name, daemon.resolver().resolve(instance.name, instance.type,
                                                                      instance.interfaceIndex));
        }
    }
    std::vector<FoundCapability> found;
    for (auto& [name, request] : requests) {
        if (!isReady(request.content(), interrupt, deadline)) {
            note("left out, its host does not answer in time: " + printable(name));
            continue;
        }
        const auto [status, service] = request.content().get();
        if (status == Discovery::ServiceResolved) {
            found.push_back(readCapability(service));
        }
    }
    return found;
}

std::string listing(const std::vector<FoundCapability>& found) {
    std::string text;
    for (const auto& each : found) {
        text += "\n  " + printable(each.capability) + "/" + printable(each.serviceId) + " at " +
                each.endpoint;
    }
    return text;
}

}  // namespace

FoundCapability readCapability(const Discovery::NetworkService& service) {
    const auto record = [&service](const std::string& name) {
        const auto found = service.txtRecords.find(name);
        return found == service.txtRecords.end() ? "" : found->second;
    };
    const bool isIpv6 = service.address.find(':') != std::string::npos;
    const auto host = isIpv6 ? "[" + service.address + "]" : service.address;
    return {record("capability"), record("service_id"), host + ":" + std::to_string(service.port),
            record("service_iface")};
}

std::vector<FoundCapability> findCapabilities(Interrupt& interrupt, std::chrono::milliseconds time,
                                              const Note& note) {
    const auto deadline = SteadyClock::now() + time;
    checkDaemon(time);
    try {
        Daemon daemon(interrupt, deadline);
        auto found = ask(daemon, interrupt, deadline, note);
        std::sort(found.begin(), found.end(), [](const auto& one, const auto& other) {
            return std::tie(one.capability, one.serviceId, one.endpoint) <
                   std::tie(other.capability, other.serviceId, other.endpoint);
        });
        return found;
    } catch (const Hox::Error& error) {
        throw CtlError(ExitCode::Unreachable, error.what());
    } catch (const std::future_error&) {
        throw CtlError(ExitCode::Unreachable, "the mDNS daemon is lost");
    }
}

std::string chooseEndpoint(const std::vector<FoundCapability>& found, const std::string& wanted) {
    const auto slash = wanted.find('/');
    const auto capability = wanted.substr(0, slash);
    std::vector<FoundCapability> matches;
    std::copy_if(found.begin(), found.end(), std::back_inserter(matches), [&](const auto& each) {
        return each.capability == capability &&
               (slash == std::string::npos || each.serviceId == wanted.substr(slash + 1));
    });
    if (matches.empty()) {
        throw CtlError(ExitCode::Unreachable, "nobody on the network is " + mark + wanted,
                       "halvoctl discover lists all");
    }
    if (matches.size() > 1) {
        throw CtlError(ExitCode::Usage,
                       mark + wanted + " is the name of several:" + listing(matches),
                       "mdns:CAPABILITY/ID names one");
    }
    return matches.front().endpoint;
}

bool isOnNetwork(const std::string& endpoint) {
    return endpoint.compare(0, mark.size(), mark) == 0;
}

std::string resolveEndpoint(const std::string& endpoint, Interrupt& interrupt,
                            std::chrono::milliseconds time, const Note& note) {
    if (!isOnNetwork(endpoint)) {
        return endpoint;
    }
    return chooseEndpoint(findCapabilities(interrupt, time, note), endpoint.substr(mark.size()));
}

}  // namespace Hox::Ctl
