#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "avahi/client_core.h"
#include "avahi_publisher.h"
#include "fake_request.h"
#include "hox/testing/log_capture.h"

// The road from Avahi's callback to the user, without a daemon. The entry group that fails, whose
// text the daemon reports, is tested with a stand-in of the daemon.

namespace Hox::Service::Discovery::Avahi {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class AvahiPublisherCallbacks : public ::testing::Test {
protected:
    AvahiPublisherCallbacks() {
        NetworkService service;
        service.name = "asked for";
        m_userdata =
            m_request->bind(std::make_shared<RequestContext>(RequestContext{service, m_request}));
    }

    std::vector<Status> statuses(AvahiEntryGroupState state) {
        m_request->delivered.clear();
        AvahiServicePublisher::avahiEntryGroupCallback(nullptr, state, m_userdata);
        std::vector<Status> result;
        for (const auto& [status, service] : m_request->delivered) {
            EXPECT_EQ(service.name, "asked for");
            result.push_back(status);
        }
        return result;
    }

    Hox::Testing::LogCapture m_log;
    std::shared_ptr<FakeRequest> m_request = std::make_shared<FakeRequest>();
    void* m_userdata = nullptr;
};

TEST_F(AvahiPublisherCallbacks, DeliverWhatTheEntryGroupReports) {
    EXPECT_THAT(statuses(AVAHI_ENTRY_GROUP_ESTABLISHED), ElementsAre(Published));
    EXPECT_THAT(statuses(AVAHI_ENTRY_GROUP_COLLISION), ElementsAre(Collision));
    EXPECT_THAT(statuses(AVAHI_ENTRY_GROUP_UNCOMMITED), IsEmpty());
    EXPECT_THAT(statuses(AVAHI_ENTRY_GROUP_REGISTERING), IsEmpty());
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(AvahiPublisherCallbacks, TellWhereTheRequestIsGone) {
    AvahiServicePublisher::avahiEntryGroupCallback(nullptr, AVAHI_ENTRY_GROUP_ESTABLISHED, nullptr);
    std::weak_ptr<RequestContext> gone;
    AvahiServicePublisher::avahiEntryGroupCallback(nullptr, AVAHI_ENTRY_GROUP_ESTABLISHED, &gone);
    const auto context = std::make_shared<RequestContext>();
    std::weak_ptr<RequestContext> withoutRequest = context;
    AvahiServicePublisher::handleCallback(&withoutRequest, Published);
    EXPECT_THAT(
        m_log.textsOf("avahi_publisher.h::Hox::Service::Discovery::Avahi::AvahiServicePublisher"),
        ElementsAre("Avahi: context object not valid", "Avahi: context object not valid",
                    "Avahi: context object not valid"));
    EXPECT_EQ(m_log.textsAt(spdlog::level::err).size(), 3U);
}

TEST_F(AvahiPublisherCallbacks, RequestWithoutAnAvahiObjectIsToldWhenItIsWithdrawn) {
    FairMutex mutex;
    DaemonConnection connection(mutex, [](AvahiClientState, AvahiClient*) {});
    const auto core = std::make_shared<ClientCore>();
    core->setConnection(&connection);
    core->started = true;
    core->running = true;
    auto handle = core->add(m_request, NetworkService(),
                            [](const DaemonConnection&, void*) { return nullptr; });
    ASSERT_TRUE(handle.isValid());
    EXPECT_THAT(m_log.texts(), IsEmpty());
    handle = Handle();
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre("Avahi: avahi wrapper not valid", "Avahi: failed to cleanup resource"));
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
