#include "discovery.h"

#include <gtest/gtest.h>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

const std::vector<FoundCapability> network{{"configuration", "head-1", "127.0.0.1:5005", "C"},
                                           {"configuration", "head-2", "127.0.0.1:5006", "C"},
                                           {"tuner", "t/1", "127.0.0.1:5007", "T"}};

TEST(Discovery, OneMatchIsTheEndpoint) {
    EXPECT_EQ(chooseEndpoint(network, "tuner"), "127.0.0.1:5007");
    EXPECT_EQ(chooseEndpoint(network, "tuner/t/1"), "127.0.0.1:5007");
    EXPECT_EQ(chooseEndpoint(network, "configuration/head-2"), "127.0.0.1:5006");
}

TEST(Discovery, SeveralMatchesAreListed) {
    try {
        chooseEndpoint(network, "configuration");
        ADD_FAILURE() << "one of two is chosen";
    } catch (const CtlError& error) {
        EXPECT_EQ(error.code(), ExitCode::Usage);
        EXPECT_STREQ(error.what(),
                     "mdns:configuration is the name of several:\n"
                     "  configuration/head-1 at 127.0.0.1:5005\n"
                     "  configuration/head-2 at 127.0.0.1:5006");
    }
}

TEST(Discovery, NoMatchIsNotReached) {
    for (const auto* const wanted : {"", "conf", "configuration/", "configuration/head"}) {
        try {
            chooseEndpoint(network, wanted);
            ADD_FAILURE() << wanted;
        } catch (const CtlError& error) {
            EXPECT_EQ(error.code(), ExitCode::Unreachable);
        }
    }
}

TEST(Discovery, ReadsTheRecords) {
    Service::Discovery::NetworkService service;
    service.address = "fe80::1";
    service.port = 5005;
    service.txtRecords = {{"capability", "tuner"}, {"service_id", "t"}};
    const auto found = readCapability(service);
    EXPECT_EQ(found.capability + " " + found.serviceId + " " + found.endpoint,
              "tuner t [fe80::1]:5005");
    EXPECT_EQ(found.interface, "");
}

TEST(Discovery, NamesOfTheNetworkCannotChangeTheTerminal) {
    try {
        chooseEndpoint({{"tuner", "\x1b[2J", "h:1", ""}, {"tuner", "b\nc", "h:2", ""}}, "tuner");
        ADD_FAILURE() << "it is the name of several";
    } catch (const CtlError& error) {
        EXPECT_STREQ(error.what(),
                     "mdns:tuner is the name of several:\n  tuner/\\x1b[2J at h:1\n  "
                     "tuner/b\\nc at h:2");
    }
}

TEST(Discovery, AnotherEndpointIsTakenAsItIs) {
    Interrupt interrupt;
    EXPECT_EQ(resolveEndpoint("localhost:5005", interrupt, std::chrono::seconds(1), {}),
              "localhost:5005");
}

}  // namespace

}  // namespace Hox::Ctl
