#include "hox/testing/mdns_host.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "hox/testing/child_process.h"
#include "hox/testing/private_bus.h"
#include "hox/testing/skip_outside_ci.h"
#include "hox/testing/temp_dir.h"
#include "hox/testing/wait_until.h"

namespace Hox::Testing {
namespace {

class MdnsHostTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!MdnsHost::arePossible()) {
            skipOutsideCi("this machine allows no namespaces or has no Avahi daemon");
        }
    }

    static std::string browse(const MdnsHost& host) {
        ChildProcess browser(host.command({"avahi-browse", "-rptk", "_test._tcp"}),
                             host.environment());
        browser.waitForEnd();
        return browser.output();
    }
};

TEST_F(MdnsHostTest, ServesOnItsOwnLoopback) {
    const PrivateBus bus;
    MdnsHost host(bus);
    host.addServiceFile("printer", "_test._tcp", 631);
    host.startDaemon();
    EXPECT_TRUE(bus.hasName("org.freedesktop.Avahi"));
    EXPECT_TRUE(waitUntil([&] {
        return browse(host).find(
                   "=;lo;IPv4;printer;_test._tcp;local;head-end.local;127.0.0.1;631;") !=
               std::string::npos;
    })) << browse(host);
}

TEST_F(MdnsHostTest, HostsAreAlone) {
    const PrivateBus bus;
    const TempDir folder;
    const PrivateBus otherBus(folder.path());
    MdnsHost host(bus, {"one", "lo", false});
    MdnsHost other(otherBus, {"two", "lo", false});
    host.startDaemon();
    other.startDaemon();
    EXPECT_TRUE(bus.hasName("org.freedesktop.Avahi"));
    EXPECT_TRUE(otherBus.hasName("org.freedesktop.Avahi"));
    host.killDaemon();
    EXPECT_TRUE(otherBus.hasName("org.freedesktop.Avahi"));
}

TEST_F(MdnsHostTest, PausedDaemonStaysAndGoesOn) {
    const PrivateBus bus;
    MdnsHost host(bus, {"one", "lo", false});
    host.startDaemon();
    host.pauseDaemon();
    ChildProcess browser(host.command({"avahi-browse", "-rptk", "_test._tcp"}), host.environment());
    EXPECT_FALSE(browser.waitForEnd(std::chrono::milliseconds(200)));
    EXPECT_TRUE(bus.hasName("org.freedesktop.Avahi"));
    host.resumeDaemon();
    EXPECT_EQ(browser.waitForEnd(), 0) << browser.output();
}

TEST_F(MdnsHostTest, DaemonEndsDiesAndComesBack) {
    const PrivateBus bus;
    MdnsHost host(bus, {"one", "lo", false});
    host.startDaemon();
    host.stopDaemon();
    EXPECT_TRUE(waitUntil([&] { return !bus.hasName("org.freedesktop.Avahi"); }));
    host.startDaemon();
    host.killDaemon();
    EXPECT_TRUE(waitUntil([&] { return !bus.hasName("org.freedesktop.Avahi"); }));
    host.startDaemon();
    EXPECT_TRUE(bus.hasName("org.freedesktop.Avahi"));
}

TEST_F(MdnsHostTest, JoinedHostsSeeEachOther) {
    const PrivateBus bus;
    const TempDir folder;
    const PrivateBus otherBus(folder.path());
    MdnsHost host(bus, {"one", "cable"});
    MdnsHost other(otherBus, {"two", "cable"});
    MdnsHost::join(host, other);
    host.addServiceFile("printer", "_test._tcp", 631);
    host.startDaemon();
    other.startDaemon();
    EXPECT_TRUE(waitUntil([&] {
        return browse(other).find(
                   "=;cable;IPv4;printer;_test._tcp;local;one.local;10.0.0.1;631;") !=
               std::string::npos;
    })) << browse(other);
}

}  // namespace
}  // namespace Hox::Testing
