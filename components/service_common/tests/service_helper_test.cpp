#include "hox/service_common/service_initializer/service_helper.h"

#include <gmock/gmock.h>
#include <net/if.h>

#include <cxxopts.hpp>
#include <stdexcept>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/service_discovery/error/service_discovery_publish_error.h"
#include "hox/service_discovery/fake/fake_service_discovery_client.h"
#include "hox/testing/arguments.h"
#include "hox/testing/log_capture.h"

namespace Hox::Service {
namespace {

using Discovery::FakeServiceDiscoveryClient;
using Discovery::NetworkService;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;

using Records = std::map<std::string, std::string>;

class ServiceHelperTest : public ::testing::Test {
protected:
    ServiceHelperTest() {
        m_ctx.getOptions().add_options()("port", "", cxxopts::value<std::string>());
        setPort("5000");
        m_ctx.setIdentity({"head-1", "0", "mb"});
        m_client->start();
        m_ctx.setDiscoveryClient(m_client);
    }

    void setPort(const std::string& port) {
        Testing::Arguments line({"--port", port});
        m_ctx.parseOptions(line.argc(), line.argv());
    }

    CppUtil::ResourceHandle<unsigned int> publish(int id = 18, int kind = 0, int visibility = 0,
                                                  const Records& txt = {},
                                                  const std::string& interfaceName = "lo") {
        return m_ctx.getServiceHelper().publishCapability(id, kind, visibility, "a.b.Service", txt,
                                                          interfaceName);
    }

    /// The only service on the network.
    NetworkService published() const {
        const auto services = m_client->published();
        EXPECT_THAT(services, SizeIs(1));
        return services.empty() ? NetworkService() : services.front();
    }

    const Testing::LogCapture m_log{spdlog::level::info};
    const std::shared_ptr<FakeServiceDiscoveryClient> m_client =
        std::make_shared<FakeServiceDiscoveryClient>();
    LumServiceCtx m_ctx{"program"};
};

TEST_F(ServiceHelperTest, PublishesACapability) {
    auto handle = publish();
    EXPECT_TRUE(handle.isValid());
    const NetworkService service = published();
    EXPECT_EQ(service.name, "configuration_head-1");
    EXPECT_EQ(service.hostName, "");
    EXPECT_EQ(service.domain, "");
    EXPECT_EQ(service.type.text(), "_capability._tcp");
    EXPECT_EQ(service.protocol, -1);
    EXPECT_EQ(service.interfaceIndex, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(service.port, 5000);
    EXPECT_EQ(service.address, "");
    EXPECT_THAT(service.subtypes, ElementsAre("configuration"));
    EXPECT_THAT(service.txtRecords,
                ElementsAre(Pair("capability", "configuration"), Pair("service_id", "head-1"),
                            Pair("service_iface", "a.b.Service"), Pair("type", "grpc"),
                            Pair("visiblity", "private")));
    handle = {};
    EXPECT_THAT(m_client->published(), IsEmpty());
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(ServiceHelperTest, KeepsTheRecordsOfTheCaller) {
    const auto handle = publish(18, 0, 1, {{"capability", "mine"}, {"further", "record"}});
    EXPECT_THAT(published().txtRecords,
                ElementsAre(Pair("capability", "mine"), Pair("further", "record"),
                            Pair("service_id", "head-1"), Pair("service_iface", "a.b.Service"),
                            Pair("type", "grpc"), Pair("visiblity", "public")));
}

TEST_F(ServiceHelperTest, NamesAServiceWithoutAnId) {
    m_ctx.setIdentity({"", "0", "mb"});
    const auto handle = publish(14);
    EXPECT_EQ(published().name, "state_monitoring_uservice_");
    EXPECT_EQ(published().txtRecords["service_id"], "");
}

TEST_F(ServiceHelperTest, CutsThePortTo16Bits) {
    setPort("65537");
    const auto handle = publish();
    EXPECT_EQ(published().port, 1);
}

TEST_F(ServiceHelperTest, RefusesAPortThatIsNoNumber) {
    setPort("abc");
    EXPECT_THROW(publish(), std::invalid_argument);
    EXPECT_EQ(m_client->questions("configuration_head-1"), 0);
}

TEST_F(ServiceHelperTest, RefusesAnUnknownInterfaceBeforeItPublishes) {
    EXPECT_THAT([this] { publish(18, 0, 0, {}, "no-such-one"); },
                ThrowsMessage<Discovery::ServiceDiscoveryError>(
                    StartsWith("Service Discovery Error: invalid interface name(")));
    EXPECT_EQ(m_client->questions("configuration_head-1"), 0);
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre(StartsWith("Service Discovery Error: invalid interface name(")));
}

TEST_F(ServiceHelperTest, RefusesUnknownNumbers) {
    EXPECT_THROW(publish(32), CppUtil::InvalidArgumentError);
    EXPECT_THROW(publish(18, 1), CppUtil::InvalidArgumentError);
    EXPECT_THROW(publish(18, 0, 2), CppUtil::InvalidArgumentError);
}

TEST_F(ServiceHelperTest, TellsWhyANameIsNotPublished) {
    m_client->answerWith([](const NetworkService&) { return Discovery::Collision; });
    const auto text =
        StartsWith("Service Discovery Publish Error(1): failed to publish capability(");
    EXPECT_THAT([this] { publish(); },
                ThrowsMessage<Discovery::ServiceDiscoveryPublishError>(text));
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), ElementsAre(text));
    m_client->answerWith([](const NetworkService&) -> std::optional<Discovery::Status> {
        throw Discovery::ServiceDiscoveryError("failed to publish service", "file", 1);
    });
    EXPECT_THROW(publish(), Discovery::ServiceDiscoveryError);
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre(text, HasSubstr("failed to publish service")));
}

TEST_F(ServiceHelperTest, GivesAHandleThatOutlivesTheContext) {
    auto ctx = std::make_unique<LumServiceCtx>("program");
    ctx->getOptions().add_options()("port", "", cxxopts::value<std::string>());
    Testing::Arguments line({"--port", "5000"});
    ctx->parseOptions(line.argc(), line.argv());
    auto client = std::make_shared<FakeServiceDiscoveryClient>();
    client->start();
    ctx->setDiscoveryClient(client);
    auto handle = ctx->getServiceHelper().publishCapability(18, 0, 0, "a", {}, "lo");
    ctx.reset();
    EXPECT_FALSE(client->isStarted());
    client.reset();
    handle = {};
}

}  // namespace
}  // namespace Hox::Service
