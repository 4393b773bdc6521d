#include "hox/service_common/service_initializer/lum_service_ctx.h"

#include <gmock/gmock.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <cxxopts.hpp>

#include "event_log.h"
#include "fake_cap_mngr.h"
#include "hox/testing/arguments.h"
#include "hox/testing/notify_socket.h"

namespace Hox::Service {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Key;

class ServiceContext : public ::testing::Test {
protected:
    ServiceContext() : m_ctx("halvo-test") {
        const auto text = [] { return cxxopts::value<std::string>(); };
        m_ctx.getOptions().add_options("service",
                                       {
                                           {"c,configdir", "", text()},
                                           {"ccsaddr", "", text()},
                                           {"epgaddr", "", text()->default_value("localhost:5004")},
                                           {"flag", "", cxxopts::value<bool>()},
                                       });
    }

    void parse(const std::vector<std::string>& arguments) {
        Testing::Arguments line(arguments);
        m_ctx.parseOptions(line.argc(), line.argv());
    }

    LumServiceCtx m_ctx;
};

TEST_F(ServiceContext, PutsTheDataBelowTheConfigurationDirectory) {
    parse({"-c", "/data"});
    EXPECT_EQ(m_ctx.getConfigDir(), "/data");
    const CapabilityPaths paths = m_ctx.getCapabilityPaths("configuration");
    EXPECT_EQ(paths.ccsAddress, "");
    EXPECT_EQ(paths.epgAddress, "");
    EXPECT_EQ(paths.confPath, "/data/configuration");
    EXPECT_EQ(paths.statePath, "/data/state/configuration");
}

TEST_F(ServiceContext, TakesTheConfigurationDirectoryByEitherName) {
    for (const std::vector<std::string>& line : std::vector<std::vector<std::string>>{
             {"-c", "/tmp/x"}, {"--configdir", "/tmp/x"}, {"--configdir=/tmp/x"}}) {
        parse(line);
        EXPECT_EQ(m_ctx.getConfigDir(), "/tmp/x") << line.front();
    }
}

TEST_F(ServiceContext, KnowsAConfigurationDirectoryWithoutTheOption) {
    EXPECT_EQ(m_ctx.getConfigDir(), "/var/lib/halvo");
    parse({});
    EXPECT_EQ(m_ctx.getConfigDir(), "/var/lib/halvo");
    EXPECT_EQ(m_ctx.getCapabilityPaths("x").confPath, "/var/lib/halvo/x");
    EXPECT_EQ(m_ctx.getCapabilityPaths("x").statePath, "/var/lib/halvo/state/x");
}

TEST_F(ServiceContext, TakesAddressesFromTheCommandLineOnly) {
    parse({"--ccsaddr", "store:1", "--epgaddr", "guide:2"});
    EXPECT_EQ(m_ctx.getCapabilityPaths("x").ccsAddress, "store:1");
    EXPECT_EQ(m_ctx.getCapabilityPaths("x").epgAddress, "guide:2");
    parse({});
    EXPECT_EQ(m_ctx.getCapabilityPaths("x").ccsAddress, "");
    EXPECT_EQ(m_ctx.getCapabilityPaths("x").epgAddress, "");
}

TEST_F(ServiceContext, CountsOccurrencesOnTheCommandLine) {
    parse({"--flag", "--ccsaddr", "a", "--ccsaddr", "b"});
    EXPECT_EQ(m_ctx.optionCount("flag"), 1U);
    EXPECT_EQ(m_ctx.optionCount("ccsaddr"), 2U);
    EXPECT_EQ(m_ctx.optionCount("epgaddr"), 0U);
    EXPECT_EQ(m_ctx.optionCount("nobody"), 0U);
}

TEST_F(ServiceContext, DeliversValueThenDefaultThenEmptyText) {
    parse({"--ccsaddr", "a", "--ccsaddr", "b"});
    EXPECT_EQ(m_ctx.optionValue("ccsaddr"), "b");
    EXPECT_EQ(m_ctx.optionValue("epgaddr"), "localhost:5004");
    EXPECT_EQ(m_ctx.optionValue("configdir"), "");
    EXPECT_THROW(m_ctx.optionValue("nobody"), cxxopts::exceptions::exception);
    EXPECT_THROW(m_ctx.optionValue("flag"), std::bad_cast);
}

TEST_F(ServiceContext, HasNoOptionsBeforeParsing) {
    EXPECT_EQ(m_ctx.optionCount("epgaddr"), 0U);
    EXPECT_EQ(m_ctx.optionValue("epgaddr"), "");
}

TEST_F(ServiceContext, IgnoresStrayArguments) {
    parse({"stray", "--ccsaddr", "a", "--", "--flag"});
    EXPECT_EQ(m_ctx.optionValue("ccsaddr"), "a");
    EXPECT_EQ(m_ctx.optionCount("flag"), 0U);
}

TEST_F(ServiceContext, KeepsTheResultWhereParsingFails) {
    parse({"--ccsaddr", "a"});
    EXPECT_THROW(parse({"--nobody"}), cxxopts::exceptions::exception);
    EXPECT_THROW(parse({"--ccsaddr"}), cxxopts::exceptions::exception);
    EXPECT_EQ(m_ctx.optionValue("ccsaddr"), "a");
}

TEST_F(ServiceContext, ParsesAnEmptyArgumentVector) {
    m_ctx.parseOptions(0, nullptr);
    EXPECT_EQ(m_ctx.optionCount("ccsaddr"), 0U);
    EXPECT_EQ(m_ctx.optionValue("epgaddr"), "localhost:5004");
}

TEST_F(ServiceContext, NamesTheProgramInTheHelp) {
    EXPECT_THAT(m_ctx.getOptions().help(), HasSubstr("halvo-test"));
}

TEST_F(ServiceContext, StartsEmpty) {
    EXPECT_THAT(m_ctx.getCapabilities(), ElementsAre());
    EXPECT_EQ(m_ctx.getCapabilityLock(), nullptr);
    EXPECT_EQ(m_ctx.getGrpcServer(), nullptr);
    EXPECT_EQ(m_ctx.getIdentity().id, "");
    EXPECT_EQ(m_ctx.getIdentity().nodeId, "");
    EXPECT_EQ(m_ctx.getIdentity().nodeType, "");
}

TEST_F(ServiceContext, ReplacesTheServerBuilder) {
    auto first = std::make_unique<grpc::ServerBuilder>();
    auto second = std::make_unique<grpc::ServerBuilder>();
    const auto* expected = second.get();
    m_ctx.setServerBuilder(std::move(first));
    m_ctx.setServerBuilder(std::move(second));
    EXPECT_EQ(&m_ctx.getServerBuilder(), expected);
}

TEST(ServiceContextCapabilities, AreListedByNumberAndDestroyedInListOrder) {
    Testing::NotifySocket notifySocket;
    Fixture::EventLog events(notifySocket);
    {
        LumServiceCtx ctx("program");
        ctx.addCapability(std::make_unique<Fixture::FakeCapMngr>("first", 24, events));
        ctx.addCapability(std::make_unique<Fixture::FakeCapMngr>("second", 14, events));
        ctx.addCapability(std::make_unique<Fixture::FakeCapMngr>("third", 14, events));
        EXPECT_THAT(ctx.getCapabilities(), ElementsAre(Key(24), Key(14), Key(14)));
        EXPECT_EQ(ctx.getCapabilities().front().second->id(), 24);
    }
    EXPECT_THAT(events.all(), ElementsAre("first gone", "second gone", "third gone"));
}

TEST(ServiceContextDeathTest, HasNoServerBuilderByItself) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(LumServiceCtx("program").getServerBuilder(),
                 "Assertion failed: \\[m_serverBuilder.get\\(\\)\\]");
}

}  // namespace
}  // namespace Hox::Service
