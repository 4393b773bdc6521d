// How the frame opens the discovery client and passes its events on.
#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "event_log.h"
#include "fake_cap_mngr.h"
#include "hox/cpputil/error/initialization_error.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "hox/service_common/service_initializer/lum_service_initializer.h"
#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/service_discovery/fake/fake_service_discovery_client.h"
#include "hox/testing/arguments.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/notify_socket.h"

namespace Hox::Service {
namespace {

using Discovery::FakeServiceDiscoveryClient;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;

/// Starts the frame with a capability that refuses to start, so that the test's process can do it
/// again.
class FrameWithDiscovery : public ::testing::Test {
protected:
    void initialize(LumServiceInitializer::DiscoveryClientFactory factory) {
        Testing::Arguments line({"--logstdout", "--port", "1"});
        LumServiceInitializer service(line.argc(), line.argv(), std::move(factory));
        Fixture::FakeCapMngr::Hooks hooks;
        hooks.initCapability = [this](LumServiceCtx& ctx) {
            m_clientOfContext = ctx.getDiscoveryClient();
            throw std::runtime_error("the capability was reached");
        };
        service.addCapability(std::make_unique<Fixture::FakeCapMngr>("A", 18, m_events, hooks));
        service.initialize();
    }

    Testing::NotifySocket m_notifySocket;
    Fixture::EventLog m_events{m_notifySocket};
    const std::shared_ptr<FakeServiceDiscoveryClient> m_client =
        std::make_shared<FakeServiceDiscoveryClient>();
    std::shared_ptr<Discovery::IServiceDiscoveryClient> m_clientOfContext;
};

TEST_F(FrameWithDiscovery, StartsTheClientAheadOfTheCapabilities) {
    EXPECT_THAT([this] { initialize([this] { return m_client; }); },
                ThrowsMessage<std::runtime_error>("the capability was reached"));
    EXPECT_EQ(m_client->starts(), 1);
    EXPECT_EQ(m_clientOfContext, m_client);
    EXPECT_FALSE(m_client->isStarted()) << "stopped with the frame";
}

TEST_F(FrameWithDiscovery, DoesNotStartIfThereCanBeNoClient) {
    EXPECT_THAT(
        [this] {
            initialize([]() -> std::shared_ptr<Discovery::IServiceDiscoveryClient> {
                throw Discovery::ServiceDiscoveryError("no bus", "file", 1);
            });
        },
        ThrowsMessage<CppUtil::InitializationError>(
            StartsWith("Initialization Error: Unable to initialize service discovery.(")));
    EXPECT_THAT(m_events.all(), Contains("[error] Service Discovery Error: no bus(file:1)"));
}

TEST_F(FrameWithDiscovery, StartsAgainIfTheDaemonIsLostMeanwhile) {
    m_client->failStarts(2);
    EXPECT_THAT([this] { initialize([this] { return m_client; }); },
                ThrowsMessage<std::runtime_error>("the capability was reached"));
    EXPECT_EQ(m_client->starts(), 3);
}

TEST_F(FrameWithDiscovery, DoesNotStartIfTheClientCannot) {
    m_client->failStarts(100);
    EXPECT_THAT([this] { initialize([this] { return m_client; }); },
                ThrowsMessage<CppUtil::InitializationError>(
                    StartsWith("Initialization Error: Unable to initialize service discovery.(")));
    EXPECT_THAT(m_events.all(),
                Contains(StartsWith("[error] Service Discovery Error: no system bus(")));
}

TEST_F(FrameWithDiscovery, DoesNotStartIfTheWaitForTheDaemonIsEnded) {
    m_client->cancel();
    EXPECT_THAT([this] { initialize([this] { return m_client; }); },
                ThrowsMessage<CppUtil::InitializationError>(StartsWith(
                    "Initialization Error: Unable to connect to service discovery backend(")));
    EXPECT_THAT(m_events.all(), Not(Contains(StartsWith("[error]"))));
}

/// A capability that records the events of discovery.
class Listener : public ICapMngr {
public:
    Listener(std::vector<std::string>& events, std::string name)
        : m_events(events), m_name(std::move(name)) {}
    int id() const override { return 18; }
    void onDiscoveryEvent(const Discovery::Status& status) override {
        m_events.push_back(m_name + " " + std::to_string(status));
    }

private:
    std::vector<std::string>& m_events;
    const std::string m_name;
};

class DiscoveryCallback : public ::testing::Test {
protected:
    void addCapabilities() {
        m_ctx.addCapability(std::make_unique<Listener>(m_events, "first"));
        m_ctx.addCapability(std::make_unique<Listener>(m_events, "second"));
    }

    const Testing::LogCapture m_log;
    std::vector<std::string> m_events;
    LumServiceCtx m_ctx{"program"};
};

TEST_F(DiscoveryCallback, TellsTheCapabilitiesOfALossInTheirOrder) {
    addCapabilities();
    m_ctx.discoveryCallback(Discovery::ClientLost);
    EXPECT_THAT(m_events, ElementsAre("first 10", "second 10"));
    EXPECT_THAT(m_log.textsAt(spdlog::level::info), ElementsAre("service discovery client event"));
}

TEST_F(DiscoveryCallback, KeepsOtherEventsToItself) {
    addCapabilities();
    m_ctx.discoveryCallback(Discovery::Published);
    EXPECT_THAT(m_events, IsEmpty());
    EXPECT_THAT(m_log.textsAt(spdlog::level::info), ElementsAre("service discovery client event"));
}

TEST_F(DiscoveryCallback, SaysNothingWhileThereIsNoCapability) {
    m_ctx.discoveryCallback(Discovery::ClientLost);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST(DiscoveryCallbackThreads, MayRunWhileCapabilitiesAreAdded) {
    const Testing::LogCapture log(spdlog::level::off);
    std::vector<std::string> events;
    LumServiceCtx ctx("program");
    std::atomic<bool> isDone{false};
    std::thread discovery([&] {
        while (!isDone) {
            ctx.discoveryCallback(Discovery::ClientLost);
        }
    });
    for (int number = 0; number < 100; ++number) {
        ctx.addCapability(std::make_unique<Listener>(events, std::to_string(number)));
    }
    isDone = true;
    discovery.join();
}

}  // namespace
}  // namespace Hox::Service
