#include "hox/testing/private_bus.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

#include "hox/testing/child_process.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Testing {
namespace {

/// Asks the bus that the environment names, as a foreign program does.
bool systemBusAnswers(const std::map<std::string, std::string>& environment = {}) {
    ChildProcess ask({"dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus", "/",
                      "org.freedesktop.DBus.GetId"},
                     environment);
    return ask.waitForEnd() == 0;
}

TEST(PrivateBus, IsTheSystemBusOfTheProcessAndItsChildren) {
    const PrivateBus bus;
    EXPECT_EQ(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), bus.address());
    EXPECT_TRUE(bus.hasName("org.freedesktop.DBus"));
    EXPECT_FALSE(bus.hasName("org.example.Nobody"));
    EXPECT_TRUE(systemBusAnswers());
}

TEST(PrivateBus, KeepsItsAddress) {
    std::string address;
    {
        const PrivateBus bus;
        address = bus.address();
    }
    EXPECT_FALSE(systemBusAnswers());
    EXPECT_EQ(PrivateBus().address(), address);
}

TEST(PrivateBus, EndsDiesAndComesBack) {
    PrivateBus bus;
    bus.stop();
    EXPECT_FALSE(bus.hasName("org.freedesktop.DBus"));
    bus.start();
    EXPECT_TRUE(bus.hasName("org.freedesktop.DBus"));
    bus.kill();
    EXPECT_FALSE(bus.hasName("org.freedesktop.DBus"));
    bus.start();
    EXPECT_TRUE(systemBusAnswers());
}

TEST(PrivateBus, HasOthersBesideIt) {
    const TempDir folder;
    const PrivateBus bus;
    PrivateBus other(folder.path());
    EXPECT_NE(other.address(), bus.address());
    EXPECT_EQ(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), bus.address());
    EXPECT_TRUE(systemBusAnswers({{"DBUS_SYSTEM_BUS_ADDRESS", other.address()}}));
    other.kill();
    EXPECT_FALSE(systemBusAnswers({{"DBUS_SYSTEM_BUS_ADDRESS", other.address()}}));
    EXPECT_TRUE(systemBusAnswers());
}

}  // namespace
}  // namespace Hox::Testing
