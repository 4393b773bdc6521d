#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hox/service_discovery/avahi/avahi_service_discovery_client.h"
#include "hox/testing/child_process.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/mdns_host.h"
#include "hox/testing/private_bus.h"

namespace Hox::Service::Discovery::Avahi {

/// The text of the ServiceDiscoveryError that the function throws, empty for none.
std::string errorOf(const std::function<void()>& function);

/// A test with a bus and a host of its own; the test starts the daemon. Nobody can resolve the
/// host, but its daemon serves within a moment.
class DiscoveryTest : public ::testing::Test {
protected:
    void SetUp() override;

    /// A service of the type "_capability._tcp" on the loopback interface.
    static NetworkService service(const std::string& name, std::uint16_t port = 5005);

    /// The index of the loopback interface, the same on every host.
    static int loopback();

    /// A client that is started; there must be a daemon.
    static std::unique_ptr<AvahiServiceDiscoveryClient> startedClient();

    /// The outcome of a publication that ends with this call.
    static Status outcome(IServiceDiscoveryClient& client, const NetworkService& service);

    Hox::Testing::LogCapture m_log;
    std::unique_ptr<Hox::Testing::PrivateBus> m_bus;
    std::unique_ptr<Hox::Testing::MdnsHost> m_host;
};

/// A test with one daemon for all tests of the program, which none of them may stop, and a client
/// of its own. The host can be resolved.
class SharedDaemonTest : public DiscoveryTest {
protected:
    void SetUp() override;

    /// What a foreign browser finds of a type on the host: one line for each instance, resolved,
    /// with its records backwards.
    static std::string foreignBrowser(const std::string& type);

    /// A foreign program on the host that publishes a service until it is destroyed; what follows
    /// is port and records. Returns once it is published.
    static std::unique_ptr<Hox::Testing::ChildProcess> foreignService(
        const std::vector<std::string>& arguments);

    std::unique_ptr<AvahiServiceDiscoveryClient> m_client;
};

}  // namespace Hox::Service::Discovery::Avahi
