#include "discovery_fixture.h"

#include <net/if.h>

#include <sstream>

#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/testing/skip_outside_ci.h"
#include "hox/testing/wait_until.h"

namespace Hox::Service::Discovery::Avahi {

namespace {

/// Made by the first test that wants it.
class SharedDaemon : public ::testing::Environment {
public:
    void TearDown() override {
        m_host.reset();
        m_bus.reset();
    }

    Hox::Testing::MdnsHost& host() {
        if (!m_host) {
            m_bus = std::make_unique<Hox::Testing::PrivateBus>();
            m_host = std::make_unique<Hox::Testing::MdnsHost>(*m_bus);
            m_host->startDaemon();
        }
        return *m_host;
    }

private:
    std::unique_ptr<Hox::Testing::PrivateBus> m_bus;
    std::unique_ptr<Hox::Testing::MdnsHost> m_host;
};

SharedDaemon& sharedDaemon() {
    // GoogleTest owns it.
    static auto* const daemon = new SharedDaemon;
    return *daemon;
}

const auto* const registered = ::testing::AddGlobalTestEnvironment(&sharedDaemon());

}  // namespace

std::string errorOf(const std::function<void()>& function) {
    try {
        function();
    } catch (const ServiceDiscoveryError& error) {
        return error.what();
    }
    return "";
}

void DiscoveryTest::SetUp() {
    if (!Hox::Testing::MdnsHost::arePossible()) {
        Hox::Testing::skipOutsideCi("this machine allows no namespaces or has no Avahi daemon");
        return;
    }
    m_bus = std::make_unique<Hox::Testing::PrivateBus>();
    m_host = std::make_unique<Hox::Testing::MdnsHost>(
        *m_bus, Hox::Testing::MdnsHost::Settings{"head-end", "lo", false});
}

NetworkService DiscoveryTest::service(const std::string& name, std::uint16_t port) {
    NetworkService result;
    result.name = name;
    result.type = NetworkServiceType("capability");
    result.interfaceIndex = loopback();
    result.port = port;
    return result;
}

int DiscoveryTest::loopback() {
    return static_cast<int>(if_nametoindex("lo"));
}

std::unique_ptr<AvahiServiceDiscoveryClient> DiscoveryTest::startedClient() {
    auto client = std::make_unique<AvahiServiceDiscoveryClient>();
    EXPECT_TRUE(client->start());
    return client;
}

Status DiscoveryTest::outcome(IServiceDiscoveryClient& client, const NetworkService& service) {
    return client.publisher().publish(service).content().get().first;
}

void SharedDaemonTest::SetUp() {
    if (!Hox::Testing::MdnsHost::arePossible()) {
        Hox::Testing::skipOutsideCi("this machine allows no namespaces or has no Avahi daemon");
        return;
    }
    sharedDaemon().host();
    m_client = startedClient();
}

std::string SharedDaemonTest::foreignBrowser(const std::string& type) {
    const auto& host = sharedDaemon().host();
    Hox::Testing::ChildProcess browser(host.command({"avahi-browse", "-rptk", type}),
                                       host.environment());
    EXPECT_EQ(browser.waitForEnd(), 0);
    // Each instance is listed when it is found, and again when it is resolved.
    std::istringstream output(browser.output());
    std::string resolved;
    for (std::string line; std::getline(output, line);) {
        if (line.rfind('=', 0) == 0) {
            resolved += line + "\n";
        }
    }
    return resolved;
}

std::unique_ptr<Hox::Testing::ChildProcess> SharedDaemonTest::foreignService(
    const std::vector<std::string>& arguments) {
    const auto& host = sharedDaemon().host();
    std::vector<std::string> command = {"avahi-publish", "-s"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    auto publisher =
        std::make_unique<Hox::Testing::ChildProcess>(host.command(command), host.environment());
    EXPECT_TRUE(Hox::Testing::waitUntil([&] {
        return publisher->output().find("Established under name") != std::string::npos;
    })) << publisher->output();
    return publisher;
}

}  // namespace Hox::Service::Discovery::Avahi
