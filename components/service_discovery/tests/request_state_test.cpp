#include "avahi/request/request_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

#include "fake_request.h"
#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/testing/log_capture.h"

namespace Hox::Service::Discovery::Avahi {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// Runs a function when it is destroyed, as what a user's callback holds may do.
class LastWord : public FakeRequest {
public:
    explicit LastWord(std::function<void()> function) : m_function(std::move(function)) {}
    ~LastWord() override { m_function(); }

private:
    std::function<void()> m_function;
};

class RequestStateTest : public ::testing::Test {
protected:
    static RequestState::Cleanup never() {
        return [](const auto&) {
            ADD_FAILURE() << "nothing to clean up";
            return false;
        };
    }

    Hox::Testing::LogCapture m_log;
    RequestState m_state;
    std::shared_ptr<FakeRequest> m_request = std::make_shared<FakeRequest>();
};

TEST_F(RequestStateTest, FindsByHandle) {
    m_state.add(7, m_request);
    EXPECT_EQ(m_state.find(Handle(7)), m_request);
    EXPECT_EQ(m_state.find(Handle(8)), nullptr);
}

TEST_F(RequestStateTest, CleansUpWhatItRemoves) {
    m_state.add(7, m_request);
    std::shared_ptr<IServiceRequest> cleaned;
    const auto removed = m_state.remove(Handle(7), [&](const auto& request) {
        cleaned = request;
        return false;
    });
    EXPECT_EQ(cleaned, m_request);
    EXPECT_EQ(removed, m_request);
    EXPECT_EQ(m_state.find(Handle(7)), nullptr);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(RequestStateTest, RemovesNothingTwice) {
    m_state.add(7, m_request);
    m_state.remove(Handle(7), [](const auto&) { return false; });
    EXPECT_EQ(m_state.remove(Handle(7), never()), nullptr);
    EXPECT_THAT(m_state.takeAll(), IsEmpty());
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(RequestStateTest, TellsAFailedCleanupAndForgetsTheRequest) {
    m_state.add(7, m_request);
    m_state.remove(Handle(7), [](const auto&) { return true; });
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre("Avahi: failed to cleanup resource"));
    EXPECT_EQ(m_state.find(Handle(7)), nullptr);
}

TEST_F(RequestStateTest, TakesAnExceptionForAnInvalidHandle) {
    m_state.add(7, m_request);
    try {
        m_state.remove(Handle(7), [](const auto&) -> bool { throw std::runtime_error("any"); });
        FAIL() << "nothing was thrown";
    } catch (const ServiceDiscoveryError& error) {
        EXPECT_THAT(error.what(), HasSubstr("Service Discovery Error: invalid publish handle("));
    }
}

TEST_F(RequestStateTest, GivesAllAway) {
    const auto other = std::make_shared<FakeRequest>();
    m_state.add(7, m_request);
    m_state.add(8, other);
    EXPECT_THAT(
        m_state.takeAll(),
        ElementsAre(std::pair<const unsigned int, std::shared_ptr<IServiceRequest>>(7, m_request),
                    std::pair<const unsigned int, std::shared_ptr<IServiceRequest>>(8, other)));
    EXPECT_THAT(m_state.takeAll(), IsEmpty());
}

TEST_F(RequestStateTest, DestroysNoRequestUnderItsMutex) {
    m_state.add(7, std::make_shared<LastWord>([&] { m_state.find(Handle(7)); }));
    m_state.remove(Handle(7), [](const auto&) { return false; });
    m_state.add(8, std::make_shared<LastWord>([&] { m_state.find(Handle(8)); }));
    m_state.takeAll();
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
