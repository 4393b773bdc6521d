#include "hox/configuration/conf_node_data_hndlr.h"

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <atomic>
#include <future>

#include "hox/observer_tree/change_set_conversion.h"
#include "hox/observer_tree/utils.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/wait_until.h"
#include "sample_values.h"
#include "scripted_store.h"

namespace Hox::Capability::Configuration {
namespace {

using Fixture::ScriptedStore;
using Fixture::seconds;
using Fixture::twoSeconds;
using google::protobuf::StringValue;
using Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTreeValPtr;
using Hox::ObserverTree::ObsTreeObserveChangeSet;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::StoreNodeDataReturn;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

ChangeSetType change(const std::string& key, DataTreeValPtr current) {
    ChangeSetType changes;
    addToChangeSet(changes, key, std::move(current), nullptr, 0);
    return changes;
}

void add(ObsTreeObserveChangeSet& element, const std::string& key, const std::string& text) {
    StringValue value;
    value.set_value(text);
    (*element.mutable_node_change_map())[key]
        .add_nodepairlist()
        ->mutable_currentmessage()
        ->PackFrom(value);
}

/// What the store sends about a slice with one key.
ObsTreeObserveChangeSet content(const std::string& stateId, const std::string& text = twoSeconds) {
    ObsTreeObserveChangeSet element;
    add(element, "/a", text);
    add(element, "/__csid",
        R"({"@type":"type.googleapis.com/google.protobuf.StringValue","value":")" + stateId +
            "\"}");
    return element;
}

/// A handler whose store is scripted, and what its observation has got.
class ConfNodeDataHndlrTest : public ::testing::Test {
protected:
    ~ConfNodeDataHndlrTest() override {
        m_isEnding = true;
        m_handle.reset();
    }

    void observe(const std::string& stateId = "") {
        m_handle = m_handler.observeNodeData(
            stateId, "mb", "0", "cap", [this](const ChangeSetType& changes, const Status& status) {
                std::string line = std::to_string(status.statusCode());
                for (const auto& [key, keyChanges] : changes) {
                    line += " " + key;
                }
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_got.push_back(line);
            });
    }

    StoreNodeDataReturn store(const ChangeSetType& changes, bool isPatch = true) {
        return m_handler.storeNodeData("last", "mb", "0", "cap", changes, isPatch);
    }

    std::vector<std::string> got() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_got;
    }

    bool waitForNumber(std::size_t number) const {
        return Testing::waitUntil([&] { return got().size() >= number; });
    }

    bool waitForObservations(std::size_t number) const {
        return Testing::waitUntil([&] { return m_store.observations().size() >= number; });
    }

    const Testing::LogCapture m_log{"ConfNodeDataHndlr"};
    ScriptedStore m_store;
    std::atomic<bool> m_isEnding{false};
    ConfNodeDataHndlr m_handler{openProxy(m_store.address()), m_store.address(),
                                [this] { return m_isEnding.load(); }};
    std::any m_handle;

private:
    static std::shared_ptr<ConfNodeDataHndlr::ProxyTree> openProxy(const std::string& address) {
        grpc::ChannelArguments arguments;
        arguments.SetMaxReceiveMessageSize(6 << 20);  // above gRPC's default of 4 MiB
        arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
        arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 100);
        return AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<Api::ConfigurationService>(
            grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments),
            std::make_shared<std::mutex>(), nullptr);
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_got;  // GUARDED_BY(m_mutex)
};

TEST_F(ConfNodeDataHndlrTest, SendsChangesOfTheSliceAsText) {
    m_store.start();
    m_store.answerWith(grpc::Status::OK, "17");
    const auto stored = store(change("/a", seconds(2)));
    EXPECT_TRUE(stored.status.isOk());
    EXPECT_EQ(stored.stateId, "17");
    const auto updates = m_store.updates();
    ASSERT_EQ(updates.size(), 1U);
    const auto& update = updates.front();
    EXPECT_EQ(update.confid().nodetype() + "/" + update.confid().nodeid() + "/" +
                  update.confid().capabilityid(),
              "mb/0/cap");
    EXPECT_EQ(update.lastcapconfstateid(), "last");
    EXPECT_TRUE(update.ispatch());
    StringValue text;
    ASSERT_TRUE(update.capconfchangeset()
                    .node_change_map()
                    .at("/a")
                    .nodepairlist(0)
                    .currentmessage()
                    .UnpackTo(&text));
    EXPECT_EQ(text.value(), twoSeconds);
    EXPECT_THAT(m_log.textsAt(spdlog::level::debug),
                ElementsAre("Connecting to central data store", "Connected to central data store"));
}

TEST_F(ConfNodeDataHndlrTest, SaysIfItSendsTheWholeSlice) {
    m_store.start();
    EXPECT_TRUE(store(change("/a", seconds(2)), false).status.isOk());
    ASSERT_EQ(m_store.updates().size(), 1U);
    EXPECT_FALSE(m_store.updates().front().ispatch());
}

TEST_F(ConfNodeDataHndlrTest, SendsNoStateIdAndDoesNotWaitForThat) {
    const auto stored = store(change("/__csid", seconds(1)));
    EXPECT_EQ(stored.status.statusCode(), ProtoStatus::ALREADY_EXISTS);
    EXPECT_EQ(stored.status.errorMessage(), "");
    EXPECT_EQ(stored.stateId, "");
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(ConfNodeDataHndlrTest, ReturnsTheStoresRefusal) {
    m_store.start();
    m_store.answerWith({grpc::StatusCode::FAILED_PRECONDITION, "ConfState identifier didnt match"},
                       "ignored");
    const auto stored = store(change("/a", seconds(2)));
    EXPECT_EQ(stored.status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
    EXPECT_EQ(stored.status.errorMessage(), "ConfState identifier didnt match");
    EXPECT_EQ(stored.stateId, "");
}

TEST_F(ConfNodeDataHndlrTest, WaitsForTheStoreAndSaysSo) {
    auto stored =
        std::async(std::launch::async, [this] { return store(change("/a", seconds(2))); });
    const auto notice = "Waiting for the central data store at " + m_store.address();
    ASSERT_TRUE(Testing::waitUntil([&] { return m_log.contains(notice); }));
    m_store.start();
    EXPECT_TRUE(stored.get().status.isOk());
    EXPECT_THAT(m_log.textsAt(spdlog::level::warn), ElementsAre(notice));
}

TEST_F(ConfNodeDataHndlrTest, StoresNothingIfTheProcessEndsMeanwhile) {
    auto stored =
        std::async(std::launch::async, [this] { return store(change("/a", seconds(2))); });
    ASSERT_TRUE(
        Testing::waitUntil([this] { return m_log.contains("Connecting to central data store"); }));
    m_isEnding = true;
    EXPECT_EQ(stored.get().status.statusCode(), ProtoStatus::UNAVAILABLE);
}

TEST_F(ConfNodeDataHndlrTest, GivesUpACallThatNobodyAnswersIfTheProcessEnds) {
    m_store.start();
    m_store.ignoreUpdates();
    auto stored =
        std::async(std::launch::async, [this] { return store(change("/a", seconds(2))); });
    ASSERT_TRUE(Testing::waitUntil([this] { return !m_store.updates().empty(); }));
    m_isEnding = true;
    EXPECT_EQ(stored.get().status.statusCode(), ProtoStatus::CANCELLED);
}

TEST_F(ConfNodeDataHndlrTest, ObservesTheSliceWithTheGivenStateId) {
    m_store.start();
    observe("7");
    ASSERT_TRUE(waitForObservations(1));
    const auto observation = m_store.observations().front();
    EXPECT_EQ(observation.confid().capabilityid(), "cap");
    EXPECT_EQ(observation.lastcapconfstateid(), "7");
    m_store.send(content("8"));
    ASSERT_TRUE(waitForNumber(1));
    EXPECT_THAT(got(), ElementsAre("0 /__csid /a"));
}

TEST_F(ConfNodeDataHndlrTest, PassesTheStatusOfTheStoreOn) {
    m_store.start();
    observe();
    ObsTreeObserveChangeSet upToDate;
    upToDate.mutable_observestatus()->set_statuscode(ProtoStatus::ALREADY_EXISTS);
    m_store.send(upToDate);
    ASSERT_TRUE(waitForNumber(1));
    EXPECT_THAT(got(), ElementsAre(std::to_string(ProtoStatus::ALREADY_EXISTS)));
}

TEST_F(ConfNodeDataHndlrTest, ObservesAgainAfterALossWithTheLastStateId) {
    m_store.start();
    observe("7");
    m_store.send(content("8"));
    ASSERT_TRUE(waitForNumber(1));
    m_store.stop();
    ASSERT_TRUE(waitForNumber(2));
    EXPECT_EQ(got().back(), std::to_string(ProtoStatus::CANCELLED));
    m_store.start();
    ASSERT_TRUE(waitForObservations(2));
    EXPECT_EQ(m_store.observations().back().lastcapconfstateid(), "8");
    m_store.answerWith(grpc::Status::OK, "9");
    EXPECT_TRUE(store(change("/a", seconds(2))).status.isOk());
    m_store.stop();
    m_store.start();
    ASSERT_TRUE(waitForObservations(3));
    EXPECT_EQ(m_store.observations().back().lastcapconfstateid(), "9");
    m_store.send(content("10"));
    ASSERT_TRUE(Testing::waitUntil([this] { return got().back() == "0 /__csid /a"; }));
}

TEST_F(ConfNodeDataHndlrTest, AsksAgainIfItHasStoredSomethingBeforeTheFirstAnswer) {
    m_store.start();
    observe("7");
    ASSERT_TRUE(waitForObservations(1));
    m_store.answerWith(grpc::Status::OK, "9");
    EXPECT_TRUE(store(change("/a", seconds(2))).status.isOk());
    m_store.send(content("8"));
    ASSERT_TRUE(waitForObservations(2));
    EXPECT_EQ(m_store.observations().back().lastcapconfstateid(), "9");
    EXPECT_THAT(got(), IsEmpty()) << "that was the slice before the change";
    m_store.send(content("10"));
    ASSERT_TRUE(waitForNumber(1));
    m_store.send(content("11"));
    EXPECT_TRUE(waitForNumber(2)) << "nothing has been stored since it has asked";
    m_store.answerWith(grpc::Status::OK, "12");
    EXPECT_TRUE(store(change("/a", seconds(2))).status.isOk());
    m_store.send(content("11"));
    ASSERT_TRUE(waitForObservations(3));
    EXPECT_EQ(m_store.observations().back().lastcapconfstateid(), "12");
    EXPECT_EQ(got().size(), 2U) << "an operation may have left the state id as it was";
}

TEST_F(ConfNodeDataHndlrTest, AsksAgainIfTheSliceIsGoneButItHasStoredSomethingSince) {
    m_store.start();
    observe("");
    ASSERT_TRUE(waitForObservations(1));
    m_store.send(content("18"));
    ASSERT_TRUE(waitForNumber(1));
    m_store.answerWith(grpc::Status::OK, "19");
    EXPECT_TRUE(store(change("/a", seconds(2))).status.isOk());
    m_store.send({});
    ASSERT_TRUE(waitForObservations(2));
    EXPECT_EQ(m_store.observations().back().lastcapconfstateid(), "")
        << "the store may have only what was stored last";
    EXPECT_EQ(got().size(), 1U);
    m_store.send({});
    EXPECT_TRUE(waitForNumber(2)) << "nothing has been stored since it has asked";
}

TEST_F(ConfNodeDataHndlrTest, StillAsksForTheContentAfterALossThatPrecedesTheAnswer) {
    m_store.start();
    observe("");
    ASSERT_TRUE(waitForObservations(1));
    m_store.send(content("18"));
    ASSERT_TRUE(waitForNumber(1));
    EXPECT_TRUE(store(change("/a", seconds(2))).status.isOk());
    m_store.send({});
    ASSERT_TRUE(waitForObservations(2));
    m_store.stop();
    m_store.start();
    ASSERT_TRUE(waitForObservations(3));
    EXPECT_EQ(m_store.observations().back().lastcapconfstateid(), "");
}

TEST_F(ConfNodeDataHndlrTest, ObservesAgainIfOthersHaveChangedTheSlice) {
    m_store.start();
    observe("7");
    m_store.send(content("8"));
    ASSERT_TRUE(waitForNumber(1));
    m_store.answerWith({grpc::StatusCode::FAILED_PRECONDITION, "ConfState identifier didnt match"},
                       "");
    EXPECT_FALSE(store(change("/a", seconds(2))).status.isOk());
    ASSERT_TRUE(waitForObservations(2));
    EXPECT_EQ(m_store.observations().back().lastcapconfstateid(), "8");
    m_store.send(content("9"));
    EXPECT_TRUE(waitForNumber(2));
}

TEST_F(ConfNodeDataHndlrTest, SaysIfTheStoreRefusesToBeObserved) {
    m_store.start();
    observe();
    ObsTreeObserveChangeSet refusal;
    refusal.mutable_observestatus()->set_statuscode(ProtoStatus::INVALID_ARGUMENT);
    m_store.send(refusal);
    ASSERT_TRUE(waitForNumber(1));
    EXPECT_THAT(got(), ElementsAre(std::to_string(ProtoStatus::INVALID_ARGUMENT)));
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre("the central data store at " + m_store.address() +
                            " refuses to be observed: 3 "));
}

TEST_F(ConfNodeDataHndlrTest, ForgetsTheStateIdOfASliceThatIsGone) {
    m_store.start();
    observe("7");
    m_store.send({});
    ASSERT_TRUE(waitForNumber(1));
    EXPECT_THAT(got(), ElementsAre("0"));
    m_store.stop();
    m_store.start();
    ASSERT_TRUE(waitForObservations(2));
    EXPECT_EQ(m_store.observations().back().lastcapconfstateid(), "");
}

TEST_F(ConfNodeDataHndlrTest, DeliversNothingOfWhatItCannotRead) {
    m_store.start();
    observe();
    m_store.send(content("8", "{broken"));
    ASSERT_TRUE(waitForNumber(1));
    EXPECT_THAT(got(), ElementsAre(std::to_string(ProtoStatus::FAILED_PRECONDITION)));
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre(StartsWith("Content of the central data store at " + m_store.address() +
                                       " left out, nothing is changed: ")));
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), Contains(HasSubstr("The text of /a ")));
    m_store.send(content("9"));
    ASSERT_TRUE(waitForNumber(2));
    EXPECT_EQ(got().back(), "0 /__csid /a") << "what comes later is read";
}

TEST_F(ConfNodeDataHndlrTest, TakesContentOfMegabytesButNotOfAnySize) {
#if defined(__SANITIZE_THREAD__)
    // Libraries without instrumentation seem to race, and each suppressed report of a long copy
    // takes milliseconds: half a minute or more here.
    GTEST_SKIP();
#endif
    m_store.start();
    observe();
    ASSERT_TRUE(waitForObservations(1));
    const auto sized = [](std::size_t size) {
        return content("8",
                       R"({"@type":"type.googleapis.com/google.protobuf.StringValue","value":")" +
                           std::string(size, 'a') + "\"}");
    };
    m_store.send(sized(std::size_t{5} << 20U));
    ASSERT_TRUE(waitForNumber(1));
    EXPECT_THAT(got(), ElementsAre("0 /__csid /a"));
    const Testing::LogCapture log("AsyncGrpcClientHandler");
    m_store.send(sized(std::size_t{7} << 20U));
    // Who is busy with the size for too long takes the end of the stream for a loss.
    const auto lost = std::to_string(ProtoStatus::CANCELLED);
    EXPECT_TRUE(Testing::waitUntil(
        [&] { return !log.textsAt(spdlog::level::warn).empty() || got().size() == 2; }));
    EXPECT_THAT(got(), AnyOf(ElementsAre("0 /__csid /a"), ElementsAre("0 /__csid /a", lost)));
}

TEST_F(ConfNodeDataHndlrTest, TakesAStateIdThatIsNoNumber) {
    m_store.start();
    observe();
    m_store.send(content("no number"));
    ASSERT_TRUE(waitForNumber(1));
    m_store.stop();
    m_store.start();
    ASSERT_TRUE(waitForObservations(2));
    EXPECT_EQ(m_store.observations().back().lastcapconfstateid(), "no number");
}

TEST_F(ConfNodeDataHndlrTest, RefusesAStateIdThatIsNoText) {
    m_store.start();
    observe("7");
    auto element = content("8");
    element.mutable_node_change_map()->erase("/__csid");
    add(element, "/__csid", twoSeconds);
    m_store.send(element);
    ASSERT_TRUE(waitForNumber(1));
    EXPECT_THAT(got(), ElementsAre(std::to_string(ProtoStatus::FAILED_PRECONDITION)));
}

TEST_F(ConfNodeDataHndlrTest, EndsAnObservationInTimeWhateverItWaitsFor) {
    const auto endsInTime = [this] {
        const auto begin = std::chrono::steady_clock::now();
        m_handle.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    };
    observe();
    endsInTime();
    m_store.start();
    observe();
    ASSERT_TRUE(waitForObservations(1));
    endsInTime();
    EXPECT_TRUE(Testing::waitUntil([this] { return m_store.streams() == 0; }));
    observe();
    ASSERT_TRUE(waitForObservations(2));
    m_store.stop();
    ASSERT_TRUE(waitForNumber(1));
    endsInTime();
}

TEST_F(ConfNodeDataHndlrTest, SaysThatItWaitsForTheFirstAnswer) {
    m_store.start();
    observe();
    EXPECT_TRUE(Testing::waitUntil([this] {
        return m_log.contains("Waiting for the answer of the central data store at " +
                              m_store.address());
    }));
}

}  // namespace
}  // namespace Hox::Capability::Configuration
