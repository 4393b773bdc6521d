#include "hox/configuration/slice.h"

#include <gmock/gmock.h>
#include <google/protobuf/duration.pb.h>
#include <google/protobuf/wrappers.pb.h>

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
        const auto& [key, keyChanges] = *changes.begin();
        const auto& current = keyChanges.at(0).current;
        m_sent.push_back(lastStateId + " " + key + " " +
                         (current ? std::to_string(current->get<Duration>().seconds()) : "none"));
        return m_answer;
    }

    std::any observeNodeData(const std::string& lastStateId, const std::string& /*nodeType*/,
                             const std::string& /*nodeId*/, const std::string& /*capabilityId*/,
                             Callback callback) override {
        EXPECT_EQ(lastStateId, "");
        m_observer = std::move(callback);
        return 1;
    }

    StoreNodeDataReturn m_answer{Status(), "new"};
    std::vector<std::string> m_sent;
    Callback m_observer;
};

class SliceTest : public ::testing::Test {
protected:
    void observe() {
        m_slice.observe([this](const ChangeSetType& changes) {
            std::vector<std::string> keys;
            for (const auto& change : changes) {
                keys.push_back(change.first);
            }
            m_told.push_back(keys);
        });
    }

    const std::shared_ptr<RecordingStore> m_store = std::make_shared<RecordingStore>();
    std::vector<std::vector<std::string>> m_told;
    Slice m_slice{m_store, "mb", "0", "cap"};
};

TEST_F(SliceTest, EachUpdateIsBasedOnTheOneBefore) {
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    m_store->m_answer.stateId = "newer";
    EXPECT_TRUE(m_slice.remove("/a").isOk());
    EXPECT_TRUE(m_slice.set("/b", duration(3)).isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre(" /a 2", "new /a none", "newer /b 3"));
}

TEST_F(SliceTest, ARefusedUpdateChangesNothing) {
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    m_store->m_answer = {Status(ProtoStatus::FAILED_PRECONDITION, "stale"), "other"};
    EXPECT_EQ(m_slice.set("/a", duration(3)).errorMessage(), "stale");
    EXPECT_FALSE(m_slice.remove("/a").isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre(" /a 2", "new /a 3", "new /a none"));
}

TEST_F(SliceTest, WhatIsObservedIsDeliveredWithoutItsStateId) {
    observe();
    m_store->m_observer(
        {{"/a", {{storedText("x"), nullptr}}}, {stateIdKey, {{storedText("seen"), nullptr}}}},
        Status());
    EXPECT_THAT(m_told, ElementsAre(ElementsAre("/a")));
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre("seen /a 2"));
}

TEST_F(SliceTest, AWipedSliceHasNoState) {
    observe();
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    m_store->m_observer(
        {{"/a", {{nullptr, storedText("x")}}}, {stateIdKey, {{nullptr, storedText("new")}}}},
        Status());
    EXPECT_THAT(m_told, ElementsAre(ElementsAre("/a")));
    EXPECT_TRUE(m_slice.set("/a", duration(3)).isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre(" /a 2", " /a 3"));
}

TEST_F(SliceTest, ALossOfTheStoreIsNoChange) {
    observe();
    EXPECT_TRUE(m_slice.set("/a", duration(2)).isOk());
    m_store->m_observer({}, Status(ProtoStatus::CANCELLED, ""));
    m_store->m_observer({}, Status(ProtoStatus::ALREADY_EXISTS, ""));
    EXPECT_THAT(m_told, IsEmpty());
    EXPECT_TRUE(m_slice.set("/a", duration(3)).isOk());
    EXPECT_THAT(m_store->m_sent, ElementsAre(" /a 2", "new /a 3"));
}

}  // namespace
}  // namespace Hox::Capability::Configuration
