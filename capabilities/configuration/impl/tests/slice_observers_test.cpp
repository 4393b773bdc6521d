#include "slice_observers.h"

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace Hox::Capability::Configuration {
namespace {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::Status;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Api::ObserveCapConfReq requestOf(const std::string& capability) {
    Api::ObserveCapConfReq request;
    request.mutable_confid()->set_nodetype("mb");
    request.mutable_confid()->set_nodeid("0");
    request.mutable_confid()->set_capabilityid(capability);
    return request;
}

/// Observers of slices, called as by the capability's thread.
class SliceObserversTest : public ::testing::Test {
protected:
    /// The callback of an observer by name. Its address is valid as long as this object.
    SliceObservers::Callback& callbackOf(const std::string& name) {
        m_callbacks.push_back(std::make_unique<SliceObservers::Callback>(
            [this, name](const auto&, const Status&) { m_events.push_back("told " + name); }));
        return *m_callbacks.back();
    }

    std::shared_ptr<std::mutex> m_mutex = std::make_shared<std::mutex>();
    std::vector<std::string> m_events;
    std::vector<std::unique_ptr<SliceObservers::Callback>> m_callbacks;
    std::unique_ptr<SliceObservers> m_observers = std::make_unique<SliceObservers>(
        m_mutex, [this](const Api::ObserveCapConfReq& request, const auto& callback) {
            m_events.push_back("greeted " + request.lastcapconfstateid());
            callback(ChangeSetType(), Status());
        });

    void arrive(const std::string& name, const SliceObservers::Callback& callback,
                const std::string& capability = "tuner") {
        auto request = requestOf(capability);
        request.set_lastcapconfstateid(name);
        const std::lock_guard<std::mutex> lock(*m_mutex);
        m_observers->arrive(request, callback);
    }

    void leave(const SliceObservers::Callback& callback, const std::string& capability = "tuner") {
        const std::lock_guard<std::mutex> lock(*m_mutex);
        m_observers->leave(requestOf(capability), callback);
    }
};

TEST_F(SliceObserversTest, FirstOneIsGreetedAtOnceAndToldOfChanges) {
    const auto& first = callbackOf("first");
    arrive("first", first);
    EXPECT_THAT(m_events, ElementsAre("greeted first", "told first"));
    m_observers->tell("mb/0/tuner", ChangeSetType());
    m_observers->tell("mb/0/other", ChangeSetType());
    EXPECT_THAT(m_events, ElementsAre("greeted first", "told first", "told first"));
    leave(first);
    m_observers->tell("mb/0/tuner", ChangeSetType());
    EXPECT_EQ(m_events.size(), 3U);
}

TEST_F(SliceObserversTest, EachSliceHasAnObserverOfItsOwn) {
    arrive("first", callbackOf("first"));
    arrive("second", callbackOf("second"), "other");
    EXPECT_THAT(m_events,
                ElementsAre("greeted first", "told first", "greeted second", "told second"));
}

TEST_F(SliceObserversTest, NewcomerIsGreetedWhenTheFormerOneHasLeft) {
    const auto& former = callbackOf("former");
    const auto& newcomer = callbackOf("newcomer");
    arrive("former", former);
    m_events.clear();
    arrive("newcomer", newcomer);
    m_observers->tell("mb/0/tuner", ChangeSetType());
    EXPECT_THAT(m_events, ElementsAre("told former"));
    m_events.clear();
    leave(former);
    EXPECT_THAT(m_events, ElementsAre("greeted newcomer", "told newcomer"));
    leave(newcomer);
    arrive("third", callbackOf("third"));
    EXPECT_EQ(m_events.back(), "told third");
}

TEST_F(SliceObserversTest, NewcomersWaitInOrderAndMayLeave) {
    const auto& former = callbackOf("former");
    const auto& first = callbackOf("first");
    const auto& second = callbackOf("second");
    const auto& third = callbackOf("third");
    arrive("former", former);
    arrive("first", first);
    arrive("second", second);
    arrive("third", third);
    m_events.clear();
    leave(first);
    EXPECT_THAT(m_events, IsEmpty());
    leave(former);
    EXPECT_THAT(m_events, ElementsAre("greeted second", "told second"));
    leave(third);
    leave(second);
    EXPECT_EQ(m_events.size(), 2U);
}

TEST_F(SliceObserversTest, ManyComeAndGo) {
    for (int round = 0; round < 1000; ++round) {
        const auto& former = callbackOf("former");
        const auto& newcomer = callbackOf("newcomer");
        arrive("former", former);
        arrive("newcomer", newcomer);
        leave(former);
        leave(newcomer);
        m_callbacks.clear();
    }
    EXPECT_EQ(m_events.size(), 4000U);
}

TEST_F(SliceObserversTest, WaitingNewcomersEndWithIt) {
    arrive("former", callbackOf("former"));
    arrive("newcomer", callbackOf("newcomer"));
    m_observers.reset();
    EXPECT_THAT(m_events, ElementsAre("greeted former", "told former"));
}

class SliceObserversDeathTest : public SliceObserversTest {
protected:
    SliceObserversDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(SliceObserversDeathTest, SecondObserverThatStaysIsAnErrorInTheEnd) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_DEATH(
        {
            arrive("first", callbackOf("first"));
            arrive("second", callbackOf("second"));
            std::this_thread::sleep_until(std::chrono::steady_clock::time_point::max());
        },
        "Assertion failed: \\[m_observeCbMap.find\\(uniqueConfId\\) == "
        "m_observeCbMap.end\\(\\)\\]");
    EXPECT_GE(std::chrono::steady_clock::now() - start, SliceObservers::patience);
}

TEST_F(SliceObserversDeathTest, NobodyLeavesWithoutHavingCome) {
    EXPECT_DEATH(leave(callbackOf("nobody")),
                 "Assertion failed: \\[m_observeCbMap.find\\(uniqueConfId\\) != "
                 "m_observeCbMap.end\\(\\)\\]");
}

}  // namespace
}  // namespace Hox::Capability::Configuration
