#include "discovery/publications.h"

#include <gmock/gmock.h>

#include <future>
#include <optional>

#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/service_discovery/fake/fake_service_discovery_client.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/wait_until.h"

namespace Hox::Service {
namespace {

using Discovery::FakeServiceDiscoveryClient;
using Discovery::NetworkService;
using Discovery::Status;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ThrowsMessage;

constexpr const char* lostText =
    "The mDNS daemon is lost, its records will be published again once it is back";
constexpr const char* backText = "All records are published again";

class PublicationsTest : public ::testing::Test {
protected:
    PublicationsTest() {
        m_client->setCallback([this](const Status& status) {
            if (status == Discovery::ClientLost) {
                m_publications->lost();
            }
        });
        m_client->start();
    }

    static NetworkService service(const std::string& name) {
        NetworkService result;
        result.name = name;
        return result;
    }

    std::vector<std::string> publishedNames() const {
        std::vector<std::string> names;
        for (const auto& published : m_client->published()) {
            names.push_back(published.name);
        }
        return names;
    }

    Discovery::Handle publish(const std::string& name) {
        auto [status, handle] = m_publications->publish(service(name));
        EXPECT_EQ(status, Discovery::Published);
        EXPECT_TRUE(handle.isValid());
        return std::move(handle);
    }

    /// The daemon is lost between the first question and its answer; the next one publishes.
    std::future<std::pair<Status, Discovery::Handle>> publishAcrossALoss(const std::string& name) {
        auto outcome =
            std::async(std::launch::async, [=] { return m_publications->publish(service(name)); });
        EXPECT_TRUE(Testing::waitUntil([&] { return m_client->questions(name) == 1; }));
        m_client->answerWith([](const NetworkService&) { return Discovery::Published; });
        m_client->loseDaemon();
        m_client->bringDaemon();
        return outcome;
    }

    std::vector<std::string> records() const {
        std::vector<std::string> texts;
        for (const auto& text : m_log.textsAt(spdlog::level::warn)) {
            texts.push_back("warn: " + text);
        }
        for (const auto& text : m_log.textsAt(spdlog::level::err)) {
            texts.push_back("error: " + text);
        }
        for (const auto& text : m_log.textsAt(spdlog::level::info)) {
            texts.push_back("info: " + text);
        }
        return texts;
    }

    bool waitForRecord(const std::string& text) const {
        return Testing::waitUntil([&] { return m_log.contains(text); });
    }

    const Testing::LogCapture m_log{spdlog::level::info};
    const std::shared_ptr<FakeServiceDiscoveryClient> m_client =
        std::make_shared<FakeServiceDiscoveryClient>();
    std::shared_ptr<Publications> m_publications = std::make_shared<Publications>(m_client);
};

TEST_F(PublicationsTest, LastAsLongAsTheirHandles) {
    auto first = publish("a");
    std::optional<Discovery::Handle> second = publish("b");
    EXPECT_THAT(publishedNames(), ElementsAre("a", "b"));
    second.reset();
    EXPECT_THAT(publishedNames(), ElementsAre("a"));
    const Discovery::Handle moved = std::move(first);
    EXPECT_THAT(publishedNames(), ElementsAre("a"));
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(PublicationsTest, AreRefusedAtOnceIfTheNameIsTaken) {
    m_client->answerWith([](const NetworkService&) { return Discovery::Collision; });
    const auto [status, handle] = m_publications->publish(service("a"));
    EXPECT_EQ(status, Discovery::Collision);
    EXPECT_FALSE(handle.isValid());
    EXPECT_EQ(m_client->questions("a"), 1);
}

TEST_F(PublicationsTest, AreRefusedIfTheyFail) {
    m_client->answerWith([](const NetworkService&) { return Discovery::PublishFailure; });
    EXPECT_EQ(m_publications->publish(service("a")).first, Discovery::PublishFailure);
    EXPECT_EQ(m_client->questions("a"), 1);
}

TEST_F(PublicationsTest, PassOnTheErrorOfTheClient) {
    m_client->answerWith([](const NetworkService&) -> std::optional<Status> {
        throw Discovery::ServiceDiscoveryError("failed to publish service", "file", 1);
    });
    EXPECT_THAT([&] { m_publications->publish(service("a")); },
                ThrowsMessage<Discovery::ServiceDiscoveryError>(
                    "Service Discovery Error: failed to publish service(file:1)"));
    m_client->answerWith([](const NetworkService&) { return Discovery::Published; });
    const auto handle = publish("a");
}

TEST_F(PublicationsTest, ComeBackAfterALoss) {
    const auto first = publish("a");
    const auto second = publish("b");
    m_client->loseDaemon();
    ASSERT_TRUE(waitForRecord(lostText));
    EXPECT_THAT(publishedNames(), IsEmpty());
    m_client->bringDaemon();
    ASSERT_TRUE(waitForRecord(backText));
    EXPECT_THAT(publishedNames(), ElementsAre("a", "b"));
    EXPECT_THAT(records(),
                ElementsAre(std::string("warn: ") + lostText, std::string("info: ") + backText));
}

TEST_F(PublicationsTest, WithdrawnDuringALossStayAway) {
    const auto first = publish("a");
    std::optional<Discovery::Handle> second = publish("b");
    m_client->loseDaemon();
    second.reset();
    m_client->bringDaemon();
    ASSERT_TRUE(waitForRecord(backText));
    EXPECT_THAT(publishedNames(), ElementsAre("a"));
    EXPECT_EQ(m_client->questions("b"), 1);
}

TEST_F(PublicationsTest, WaitForTheDaemonThatIsLostBeforeItsAnswer) {
    m_client->answerWith([](const NetworkService&) { return std::nullopt; });
    auto outcome = publishAcrossALoss("a");
    ASSERT_EQ(outcome.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    const auto [status, handle] = outcome.get();
    EXPECT_EQ(status, Discovery::Published);
    EXPECT_THAT(publishedNames(), ElementsAre("a"));
}

TEST_F(PublicationsTest, TakeAFailureThatWasALossForNoAnswer) {
    m_client->answerWith([](const NetworkService&) { return Discovery::PublishFailure; });
    auto outcome = publishAcrossALoss("a");
    ASSERT_EQ(outcome.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(outcome.get().first, Discovery::Published);
}

TEST_F(PublicationsTest, TryAgainWhatIsRefusedAfterALoss) {
    const auto handle = publish("a");
    m_client->answerWith([](const NetworkService&) { return Discovery::Collision; });
    m_client->loseDaemon();
    m_client->bringDaemon();
    ASSERT_TRUE(waitForRecord("a cannot be published, status 1: trying again"));
    ASSERT_TRUE(Testing::waitUntil([&] { return m_client->questions("a") >= 3; }));
    m_client->answerWith([](const NetworkService&) { return Discovery::Published; });
    ASSERT_TRUE(waitForRecord(backText));
    EXPECT_THAT(records(), ElementsAre(std::string("warn: ") + lostText,
                                       "error: a cannot be published, status 1: trying again",
                                       std::string("info: ") + backText));
}

TEST_F(PublicationsTest, TryAgainWhatCollidesLater) {
    const auto handle = publish("a");
    m_client->report("a", Discovery::Collision);
    ASSERT_TRUE(waitForRecord(backText));
    EXPECT_THAT(publishedNames(), ElementsAre("a"));
    EXPECT_THAT(records(), ElementsAre("error: a cannot be published, status 1: trying again",
                                       std::string("info: ") + backText));
}

TEST_F(PublicationsTest, TellEachRefusalAndTryAgainSoon) {
    const auto handle = publish("a");
    for (int round = 1; round <= 2; ++round) {
        m_client->answerWith([](const NetworkService&) { return Discovery::Collision; });
        m_client->report("a", Discovery::Collision);
        ASSERT_TRUE(Testing::waitUntil([&] { return m_client->questions("a") >= 3 * round - 1; }));
        m_client->answerWith([](const NetworkService&) { return Discovery::Published; });
        ASSERT_TRUE(Testing::waitUntil([&] {
            const auto infos = m_log.textsAt(spdlog::level::info);
            return static_cast<int>(infos.size()) == round;
        }));
    }
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre("a cannot be published, status 1: trying again",
                            "a cannot be published, status 1: trying again"));
}

TEST_F(PublicationsTest, TellALossWhileOneIsRefused) {
    const auto handle = publish("a");
    m_client->answerWith([](const NetworkService&) { return Discovery::Collision; });
    m_client->report("a", Discovery::Collision);
    ASSERT_TRUE(waitForRecord("a cannot be published, status 1: trying again"));
    m_client->loseDaemon();
    EXPECT_TRUE(waitForRecord(lostText));
}

TEST_F(PublicationsTest, TakeALossRightAfterTheStartForNoAnswer) {
    m_client->loseAtNextStart();
    m_client->loseDaemon();
    ASSERT_TRUE(waitForRecord(lostText));
    auto outcome =
        std::async(std::launch::async, [&] { return m_publications->publish(service("a")); });
    m_client->bringDaemon();
    ASSERT_TRUE(Testing::waitUntil([&] { return m_client->starts() >= 3; }));
    // Longer than a refusal would take to be believed.
    EXPECT_EQ(outcome.wait_for(std::chrono::milliseconds(1500)), std::future_status::timeout);
    m_client->bringDaemon();
    EXPECT_EQ(outcome.get().first, Discovery::Published);
}

TEST_F(PublicationsTest, TellALongWaitForTheFirstAnswer) {
    m_client->answerWith([](const NetworkService&) { return std::nullopt; });
    auto outcome =
        std::async(std::launch::async, [&] { return m_publications->publish(service("a")); });
    ASSERT_TRUE(waitForRecord("Waiting for the mDNS daemon"));
    m_client->report("a", Discovery::Published);
    EXPECT_EQ(outcome.get().first, Discovery::Published);
    EXPECT_THAT(m_log.texts(),
                ElementsAre("Waiting for the mDNS daemon", "The mDNS daemon has appeared"));
}

TEST_F(PublicationsTest, OutliveTheBus) {
    const auto handle = publish("a");
    m_client->failStarts(2);
    m_client->loseDaemon();
    m_client->bringDaemon();
    ASSERT_TRUE(waitForRecord(backText));
    EXPECT_EQ(m_client->starts(), 1 + 1 + 3);
    EXPECT_THAT(publishedNames(), ElementsAre("a"));
    EXPECT_THAT(m_log.textsAt(spdlog::level::warn), ElementsAre(lostText));
}

TEST_F(PublicationsTest, StartTheClientAnewWithNothingPublished) {
    m_client->loseDaemon();
    m_client->bringDaemon();
    EXPECT_TRUE(waitForRecord(backText));
    EXPECT_TRUE(m_client->isStarted());
}

TEST_F(PublicationsTest, KeepNothingOfFormerLosses) {
    const auto handle = publish("a");
    for (int round = 0; round < 1000; ++round) {
        m_client->loseDaemon();
        m_client->bringDaemon();
        ASSERT_TRUE(Testing::waitUntil([&] { return m_client->published().size() == 1; }));
    }
    EXPECT_THAT(publishedNames(), ElementsAre("a"));
}

TEST_F(PublicationsTest, EndWhileThereIsNoDaemon) {
    auto handle = std::make_unique<Discovery::Handle>(publish("a"));
    m_client->loseDaemon();
    ASSERT_TRUE(waitForRecord(lostText));
    m_publications->end();
    m_publications->end();
    m_publications.reset();
    handle.reset();
    EXPECT_THAT(m_log.textsAt(spdlog::level::info), IsEmpty());
}

TEST_F(PublicationsTest, EndWhileTheDaemonDoesNotAnswer) {
    const auto handle = publish("a");
    m_client->answerWith([](const NetworkService&) { return std::nullopt; });
    m_client->loseDaemon();
    m_client->bringDaemon();
    ASSERT_TRUE(Testing::waitUntil([&] { return m_client->questions("a") == 2; }));
    m_publications.reset();
    EXPECT_FALSE(m_client->isStarted());
}

TEST_F(PublicationsTest, EndWithoutAnEvent) {
    const auto handle = publish("a");
    int events = 0;
    m_client->setCallback([&events](const Status& /*status*/) { ++events; });
    m_publications->end();
    EXPECT_EQ(events, 0);
    EXPECT_THAT(publishedNames(), IsEmpty());
    EXPECT_THAT(records(), IsEmpty());
}

}  // namespace
}  // namespace Hox::Service
