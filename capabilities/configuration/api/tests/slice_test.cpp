#include "hox/configuration/slice.h"

#include <gmock/gmock.h>
#include <google/protobuf/duration.pb.h>
#include <google/protobuf/wrappers.pb.h>

#include <future>
#include <utility>
#include <vector>

#include "hox/configuration/storable_key.h"

namespace Hox::Capability::Configuration {
namespace {

using google::protobuf::Duration;
using google::protobuf::StringValue;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::DataTreeValPtr;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::StoreNodeDataReturn;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Duration duration(int count) {
    Duration duration;
    duration.set_seconds(count);
    return duration;
}

DataTreeValPtr storedText(const std::string& content) {
    StringValue value;
    value.set_value(content);
    return std::make_shared<const DataTreeVal>(value);
}

/// A store that answers as the test says, and records what it is sent as "<state id> <key>
/// <seconds>".
class RecordingStore : public Hox::ObserverTree::INodeDataHndlr {
public:
    using Callback = std::function<void(ChangeSetType, const Status&)>;

    StoreNodeDataReturn storeNodeData(const std::string& lastStateId, const std::string& nodeType,
                                      const std::string& nodeId, const std::string& capabilityId,
                                      const ChangeSetType& changes, bool isPatch) override {
        EXPECT_EQ(nodeType + nodeId + capabilityId, "mb0cap");
        EXPECT_TRUE(isPatch);
        const auto answer = m_answer;
        if (m_meanwhile) {
            m_meanwhile();
        }
        const auto& [key, keyChanges] = *changes.begin();
        const auto& current = keyChanges.at(0).current;
        m_sent.push_back(lastStateId + " " + key + " " +
                         (current ? std::to_string(current->get<Duration>().seconds()) : "none"));
        return answer;
    }

    std::any observeNodeData(const std::string& lastStateId, const std::string& /*nodeType*/,
                             const std::string& /*nodeId*/, const std::string& /*capabilityId*/,
                             Callback callback) override {
        EXPECT_EQ(lastStateId, "");
        m_observer = std::move(callback);
        return 1;
    }

    StoreNodeDataReturn m_answer{Status(), "new"};
    std::function<void()> m_meanwhile;  // called before an update is answered
    std::vector<std::string> m_sent;
    Callback m_observer;
};

class SliceTest : public ::testing::Test {
protected:
    /// Records each call as "<key>=<text>...", "gone" for a removed key.
    void observe() {
        m_slice.observe([this](const ChangeSetType& changes) {
            std::string line;
            for (const auto& [key, keyChanges] : changes) {
                const auto& current = keyChanges.front().current;
                line += key + "=" + (current ? current->get<StringValue>().value() : "gone") + " ";
            }
            m_told.push_back(line);
        });
    }

    /// What the store sends at the beginning of an observation.
    void sendContent(const std::string& stateId, ChangeSetType content) {
        content[stateIdKey] = {{storedText(stateId), nullptr}};
        m_store->m_observer(std::move(content), Status());
    }

    void observeEmptySlice() {
        observe();
        m_store->m_observer({}, Status());
        m_told.clear();
    }

    const std::shared_ptr<RecordingStore> m_store = std::make_shared<RecordingStore>();
    std::vector<std::string> m_told;
    Slice m_slice{m_store, "mb", "0", "cap"};
};

TEST_F(SliceTest, EachUpdateIsBasedOnTheOneBefore) {
    observeEmptySlice();
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    m_store->m_answer.stateId = "newer";
    EXPECT_TRUE(m_slice.remove("/a").isOk());
    EXPECT_TRUE(m_slice.set("/b", duration(3)).isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre(" /a 2", "new /a none", "newer /b 3"));
}

TEST_F(SliceTest, NothingIsSentBeforeTheContentIsKnown) {
    observe();
    const auto refusal = m_slice.set("/a", duration(2));
    EXPECT_EQ(refusal.statusCode(), ProtoStatus::FAILED_PRECONDITION);
    EXPECT_EQ(refusal.errorMessage(), "The slice has not been observed yet");
    EXPECT_THAT(m_store->m_sent, IsEmpty());
    EXPECT_FALSE(m_slice.waitForContent(std::chrono::milliseconds(1)));
}

TEST_F(SliceTest, ContentIsToldOnceEvenIfThereIsNone) {
    observe();
    auto told = std::async(std::launch::async, [this] {
        return m_slice.waitForContent(std::chrono::seconds(30)) ? m_told.size() : 0;
    });
    m_store->m_observer({}, Status());
    EXPECT_EQ(told.get(), 1U);
    m_store->m_observer({}, Status());
    EXPECT_THAT(m_told, ElementsAre(""));
}

TEST_F(SliceTest, ARefusedUpdateChangesNothing) {
    observeEmptySlice();
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    m_store->m_answer = {Status(ProtoStatus::FAILED_PRECONDITION, "stale"), "other"};
    EXPECT_EQ(m_slice.set("/a", duration(3)).errorMessage(), "stale");
    EXPECT_FALSE(m_slice.remove("/a").isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre(" /a 2", "new /a 3", "new /a none"));
}

TEST_F(SliceTest, WhatIsObservedIsDeliveredWithoutItsStateId) {
    observe();
    sendContent("seen", {{"/a", {{storedText("x"), nullptr}}}});
    EXPECT_THAT(m_told, ElementsAre("/a=x "));
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre("seen /a 2"));
}

TEST_F(SliceTest, ASecondContentIsComparedWithWhatIsKnown) {
    observe();
    sendContent("seen", {{"/a", {{storedText("x"), nullptr}}},
                         {"/b", {{storedText("y"), nullptr}}},
                         {"/c", {{storedText("z"), nullptr}}}});
    EXPECT_TRUE(m_slice.set("/own", duration(2)).isOk());
    EXPECT_TRUE(m_slice.remove("/c").isOk());
    sendContent("older", {{"/a", {{storedText("x"), nullptr}}},
                          {"/b", {{storedText("before"), nullptr}}},
                          {"/d", {{storedText("new"), nullptr}}}});
    EXPECT_THAT(m_told, ElementsAre("/a=x /b=y /c=z ", "/b=before /d=new /own=gone "));
    sendContent("older", {{"/a", {{storedText("x"), nullptr}}},
                          {"/b", {{storedText("before"), nullptr}}},
                          {"/d", {{storedText("new"), nullptr}}}});
    m_store->m_observer({}, Status());
    EXPECT_EQ(m_told.size(), 3U);
    EXPECT_EQ(m_told.back(), "/a=gone /b=gone /d=gone ");
    EXPECT_TRUE(m_slice.set("/a", duration(3)).isOk());
    EXPECT_EQ(m_store->m_sent.back(), " /a 3");
}

TEST_F(SliceTest, AChangeLeavesWhatItDoesNotName) {
    observe();
    sendContent("1", {{"/a", {{storedText("x"), nullptr}}}, {"/b", {{storedText("y"), nullptr}}}});
    m_store->m_observer({{"/a", {{storedText("z"), storedText("x")}}}}, Status());
    EXPECT_EQ(m_told.back(), "/a=z ");
    EXPECT_TRUE(m_slice.set("/c", duration(3)).isOk());
    EXPECT_EQ(m_store->m_sent.back(), "1 /c 3") << "the state id is the same";
    m_store->m_observer(
        {{"/b", {{nullptr, storedText("y")}}}, {stateIdKey, {{storedText("2"), storedText("1")}}}},
        Status());
    EXPECT_EQ(m_told.back(), "/b=gone ");
    EXPECT_TRUE(m_slice.set("/c", duration(4)).isOk());
    EXPECT_EQ(m_store->m_sent.back(), "2 /c 4");
}

TEST_F(SliceTest, AWipedSliceHasNoState) {
    observeEmptySlice();
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    m_store->m_observer(
        {{"/a", {{nullptr, storedText("x")}}}, {stateIdKey, {{nullptr, storedText("new")}}}},
        Status());
    EXPECT_THAT(m_told, ElementsAre("/a=gone "));
    EXPECT_TRUE(m_slice.set("/a", duration(3)).isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre(" /a 2", " /a 3"));
}

TEST_F(SliceTest, ALossOfTheStoreIsNoChange) {
    observeEmptySlice();
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    m_store->m_observer({}, Status(ProtoStatus::CANCELLED, ""));
    m_store->m_observer({}, Status(ProtoStatus::ALREADY_EXISTS, ""));
    EXPECT_THAT(m_told, IsEmpty());
    EXPECT_TRUE(m_slice.set("/a", duration(3)).isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre(" /a 2", "new /a 3"));
}

TEST_F(SliceTest, WhatIsObservedDuringAnUpdateCountsMoreThanItsAnswer) {
    observeEmptySlice();
    m_store->m_meanwhile = [this] {
        m_store->m_observer({{"/a", {{storedText("x"), storedText("y")}}},
                             {stateIdKey, {{storedText("reverted"), storedText("new")}}}},
                            Status());
    };
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    m_store->m_meanwhile = nullptr;
    EXPECT_TRUE(m_slice.set("/a", duration(3)).isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre(" /a 2", "reverted /a 3"));
}

TEST_F(SliceTest, ThreadsUpdateInTurn) {
    observeEmptySlice();
    std::promise<void> hasArrived;
    std::promise<void> mayLeave;
    m_store->m_meanwhile = [&, isFirst = true]() mutable {
        if (std::exchange(isFirst, false)) {
            hasArrived.set_value();
            mayLeave.get_future().wait();
        }
    };
    const auto set = [this](const char* key) { return m_slice.set(key, duration(1)).isOk(); };
    auto first = std::async(std::launch::async, set, "/a");
    hasArrived.get_future().wait();
    auto second = std::async(std::launch::async, set, "/b");
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    mayLeave.set_value();
    EXPECT_TRUE(first.get());
    EXPECT_TRUE(second.get());
    EXPECT_THAT(m_store->m_sent, ElementsAre(" /a 1", "new /b 1"));
}

}  // namespace
}  // namespace Hox::Capability::Configuration
