#include "monitor_connections.h"

#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <utility>

#include "hox/observer_tree/utils.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/temp_dir.h"
#include "hox/testing/wait_until.h"
#include "state_mon_fixture.h"
#include "state_monitor_service.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Fixture::notification;
using Fixture::StateMon;
using Fixture::StateMonitorService;
using Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::ObserveReq;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A system monitor's tree with connections, and peers that come and go at sockets of a folder.
class MonitorConnectionsTest : public ::testing::Test {
protected:
    ~MonitorConnectionsTest() override {
        m_connections.end();
        const std::lock_guard<std::mutex> lock(*m_mutex);
        m_handles.clear();
    }

    std::string url(const std::string& name) const {
        return "unix:" + (m_folder.path() / name).string();
    }

    std::unique_ptr<StateMonitorService> peer(
        const std::string& name, const std::vector<std::string>& arguments = {}) const {
        return std::make_unique<StateMonitorService>(arguments, url(name));
    }

    /// Sets the addresses, and has the tree drive the connections.
    void connectTo(const std::vector<std::string>& names) {
        const std::lock_guard<std::mutex> lock(*m_mutex);
        observe("/conf", [this](const ChangeSetType& changes, const Status& /*status*/) {
            m_connections.onConfChanged(changes, m_monitor.tree());
        });
        observe("/status", [this](const ChangeSetType& changes, const Status& /*status*/) {
            m_connections.onStatusChanged(changes, m_monitor.tree());
        });
        UpdateStateMonitorConfReq req;
        for (const auto& name : names) {
            req.mutable_statemonitorconf()->add_statemonitorconnecturls(url(name));
        }
        m_monitor.tree()
            .callApiOp<UnaryOps::UPDATE, UpdateStateMonitorConfReq, UpdateStateMonitorConfResp>(
                "/conf", req);
    }

    /// One letter for each address: N not connected, G connecting, C connected.
    std::string status() {
        const std::lock_guard<std::mutex> lock(*m_mutex);
        const auto result = m_monitor.tree()
                                .callApiOp<UnaryOps::READ, Api::GetStateMonitorStatusReq,
                                           Api::GetStateMonitorStatusResp>("/status", {});
        return lettersOf(result.message->monitorstatus());
    }

    /// What an observer of the status sees from now on, each time as the letters of all addresses,
    /// without repetitions. Guarded by the mutex.
    std::shared_ptr<std::vector<std::string>> observedStatus() {
        auto observed = std::make_shared<std::vector<std::string>>();
        const std::lock_guard<std::mutex> lock(*m_mutex);
        observe("/status", [observed](const ChangeSetType& changes, const Status& /*status*/) {
            Hox::ObserverTree::callTypedObserver<Api::StateMonitorStatus>(
                changes, [&](const Api::StateMonitorStatus& current, const auto& /*previous*/) {
                    const auto letters = lettersOf(current);
                    if (observed->empty() || observed->back() != letters) {
                        observed->push_back(letters);
                    }
                });
        });
        return observed;
    }

    void observe(const std::string& keyPattern, Hox::ObserverTree::ObserverCallback callback) {
        ObserveReq req;
        req.set_key_pattern(keyPattern);
        m_handles.emplace_back(
            m_monitor.tree().observe<ObserveReq>("/", req, std::move(callback), 0));
    }

    /// The addresses whose proxies have been opened, in order.
    std::vector<std::string> opened() {
        const std::lock_guard<std::mutex> lock(*m_mutex);
        std::vector<std::string> urls;
        for (const auto& [url, channel] : m_channels) {
            urls.push_back(url);
        }
        return urls;
    }

    /// The state of the channel that has been opened at this place.
    grpc_connectivity_state channelState(std::size_t place) {
        const std::lock_guard<std::mutex> lock(*m_mutex);
        return m_channels.at(place).second->GetState(false);
    }

    bool waitForStatus(const std::string& letters) {
        return Testing::waitUntil([&] { return status() == letters; });
    }

    /// The texts of the stored reports, oldest first.
    std::vector<std::string> reports() {
        const std::lock_guard<std::mutex> lock(*m_mutex);
        std::vector<std::string> texts;
        Api::GetStateNotificationsReq req;
        req.mutable_timestamp();
        const auto result = m_monitor.get(req);
        for (const auto& stored : result.message->statelist()) {
            texts.push_back(stored.statenotification().msg());
        }
        return texts;
    }

    bool waitForReports(const std::vector<std::string>& texts) {
        const bool hasCome = Testing::waitUntil([&] { return reports() == texts; });
        EXPECT_EQ(reports(), texts);
        return hasCome;
    }

    /// The time that the end of all connections takes.
    std::chrono::steady_clock::duration end() {
        const auto begin = std::chrono::steady_clock::now();
        m_connections.end();
        return std::chrono::steady_clock::now() - begin;
    }

    static void create(StateMonitorService& peer, const std::string& msg) {
        auto report = notification("node", "type", "source/" + msg);
        report.set_msg(msg);
        EXPECT_TRUE(peer.create(report).ok());
    }

    const Testing::LogCapture m_log{"StateMonObsHelper", spdlog::level::info};
    const Testing::TempDir m_folder;
    const std::shared_ptr<std::mutex> m_mutex = std::make_shared<std::mutex>();
    // GUARDED_BY(*m_mutex)
    std::vector<std::pair<std::string, std::shared_ptr<grpc::Channel>>> m_channels;
    StateMon m_monitor;
    MonitorConnections m_connections{
        m_mutex,
        [this](const std::string& url) {
            grpc::ChannelArguments arguments;
            arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
            arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 100);
            auto channel =
                grpc::CreateCustomChannel(url, grpc::InsecureChannelCredentials(), arguments);
            m_channels.emplace_back(url, channel);
            return AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<Api::StateMonitoringService>(
                std::move(channel), m_mutex, nullptr);
        },
        1000};

private:
    static std::string lettersOf(const Api::StateMonitorStatus& status) {
        std::string letters;
        for (const auto& entry : status.statemonitorconnectionstatus()) {
            letters += "CNG"[entry.connectstatus()];
        }
        return letters;
    }

    std::vector<std::any> m_handles;
};

TEST_F(MonitorConnectionsTest, WaitForTheirRelease) {
    const auto first = peer("first");
    connectTo({"first"});
    EXPECT_EQ(status(), "G");
    m_connections.release();
    EXPECT_TRUE(waitForStatus("C"));
}

TEST_F(MonitorConnectionsTest, TakeTheWholeArchiveAndWhatComesLater) {
    const auto first = peer("first");
    create(*first, "a");
    create(*first, "b");
    connectTo({"first"});
    m_connections.release();
    EXPECT_TRUE(waitForReports({"a", "b"}));
    create(*first, "c");
    EXPECT_TRUE(waitForReports({"a", "b", "c"}));
    EXPECT_EQ(status(), "C");
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(MonitorConnectionsTest, ComeUpOneAfterTheOther) {
    const auto observed = observedStatus();
    connectTo({"first", "second"});
    const auto second = peer("second");
    create(*second, "of second");
    m_connections.release();
    ASSERT_THAT(opened(), ElementsAre(url("first"), url("second")));
    ASSERT_TRUE(
        Testing::waitUntil([&] { return channelState(0) == GRPC_CHANNEL_TRANSIENT_FAILURE; }));
    EXPECT_EQ(channelState(1), GRPC_CHANNEL_IDLE) << "it is not its turn";
    EXPECT_EQ(status(), "GG");
    EXPECT_THAT(reports(), IsEmpty());
    const auto first = peer("first");
    EXPECT_TRUE(waitForStatus("CC"));
    EXPECT_TRUE(waitForReports({"of second"}));
    const std::lock_guard<std::mutex> lock(*m_mutex);
    EXPECT_THAT(*observed, ElementsAre("NN", "GG", "CG", "CC"));
}

TEST_F(MonitorConnectionsTest, ComeBackWithThePeer) {
    auto first = peer("first");
    create(*first, "a");
    connectTo({"first"});
    m_connections.release();
    ASSERT_TRUE(waitForReports({"a"}));
    for (std::size_t round = 1; round <= 3; ++round) {
        first.reset();
        ASSERT_TRUE(waitForStatus("G"));
        first = peer("first");
        create(*first, "a");
        ASSERT_TRUE(waitForStatus("C"));
        EXPECT_TRUE(waitForReports(std::vector<std::string>(round + 1, "a")));
    }
    const auto text = "Service " + url("first") + " was disconnected";
    EXPECT_THAT(m_log.texts(), ElementsAre(text, text, text));
}

TEST_F(MonitorConnectionsTest, TakeEqualReportsOfPeersThatObserveNobody) {
    const auto first = peer("first");
    const auto second = peer("second", {"--sys_mon"});
    connectTo({"first", "second"});
    m_connections.release();
    ASSERT_TRUE(waitForStatus("CC"));
    for (int i = 0; i < 3; ++i) {
        create(*first, "a");
        create(*first, "a");
        create(*second, "a");
    }
    EXPECT_TRUE(waitForReports(std::vector<std::string>(9, "a")));
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(MonitorConnectionsTest, LeaveReportsOutThatComeBackInACircle) {
    const auto first = peer("first", {"--sys_mon", "--statemon_services", url("absent")});
    connectTo({"first"});
    m_connections.release();
    ASSERT_TRUE(waitForStatus("C"));
    auto report = notification("head-1", "type", "source/a");
    report.set_msg("a");
    {
        const std::lock_guard<std::mutex> lock(*m_mutex);
        m_connections.created(report);
    }
    const auto text = "Service " + url("first") +
                      " has sent a report that has come from here: the monitors are in a circle";
    // It is not known at once that the peer observes others.
    ASSERT_TRUE(Testing::waitUntil([&] {
        EXPECT_TRUE(first->create(report).ok());
        return m_log.contains(text);
    }));
    create(*first, "between");
    ASSERT_TRUE(Testing::waitUntil([&] { return reports().back() == "between"; }));
    auto expected = reports();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(first->create(report).ok());
    }
    create(*first, "end");
    expected.emplace_back("end");
    EXPECT_TRUE(waitForReports(expected));
    EXPECT_THAT(m_log.texts(), ElementsAre(text));
}

TEST_F(MonitorConnectionsTest, ShowEachStateToAnObserver) {
    const auto observed = observedStatus();
    auto first = peer("first");
    connectTo({"first"});
    m_connections.release();
    ASSERT_TRUE(waitForStatus("C"));
    first.reset();
    ASSERT_TRUE(waitForStatus("G"));
    first = peer("first");
    ASSERT_TRUE(waitForStatus("C"));
    EXPECT_THAT(opened(), ElementsAre(url("first"))) << "one channel for all connections";
    const std::lock_guard<std::mutex> lock(*m_mutex);
    EXPECT_THAT(*observed, ElementsAre("N", "G", "C", "N", "G", "C"));
}

TEST_F(MonitorConnectionsTest, RefuseAnAddressThatIsNotInTheFirstStatus) {
    connectTo({"first"});
    const auto statusOf = [&](const std::vector<std::string>& names) {
        Api::StateMonitorStatus status;
        for (const auto& name : names) {
            auto& entry = *status.add_statemonitorconnectionstatus();
            entry.set_connectionurl(url(name));
            entry.set_connectstatus(Api::StateMonitorConnectionStatus::NOT_CONNECTED);
        }
        return std::make_shared<const Hox::ObserverTree::DataTreeVal>(status);
    };
    ChangeSetType changes;
    Hox::ObserverTree::addToChangeSet(changes, "/status", statusOf({"unknown"}),
                                      statusOf({"first"}), 0);
    {
        const std::lock_guard<std::mutex> lock(*m_mutex);
        EXPECT_THROW(m_connections.onStatusChanged(changes, m_monitor.tree()), std::out_of_range);
    }
    EXPECT_THAT(opened(), ElementsAre(url("first")));
    EXPECT_EQ(status(), "G");
    m_connections.release();
    const auto first = peer("first");
    EXPECT_TRUE(waitForStatus("C"));
}

TEST_F(MonitorConnectionsTest, EndBeforeTheirRelease) {
    const auto present = peer("present");
    connectTo({"present", "absent"});
    EXPECT_LT(end(), std::chrono::seconds(2));
    EXPECT_EQ(status(), "GG");
}

/// The parameter is a number of changes of the tree.
class MonitorConnectionsMomentTest : public MonitorConnectionsTest,
                                     public ::testing::WithParamInterface<int> {};

constexpr int reportsOfThePeer = 10;

/// The configuration, the status of no connection, of two attempts and, twice, of a connection, and
/// the reports.
constexpr int allChanges = 5 + reportsOfThePeer;

TEST_P(MonitorConnectionsMomentTest, EndInTime) {
    auto present = peer("present");
    for (int number = 0; number < reportsOfThePeer; ++number) {
        create(*present, std::to_string(number));
    }
    const auto moment = std::make_shared<std::promise<void>>();
    {
        const std::lock_guard<std::mutex> lock(*m_mutex);
        observe("/**",
                [moment, count = 0](const ChangeSetType& /*changes*/, const Status&) mutable {
                    if (++count == GetParam()) {
                        moment->set_value();
                    }
                });
    }
    connectTo({"present", "absent"});
    m_connections.release();
    ASSERT_EQ(moment->get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
    if (GetParam() % 3 == 0) {
        present.reset();
    }
    EXPECT_LT(end(), std::chrono::seconds(2));
}

INSTANTIATE_TEST_SUITE_P(Changes, MonitorConnectionsMomentTest,
                         ::testing::Range(1, allChanges + 1));

TEST_F(MonitorConnectionsTest, DoNothingWithoutAddresses) {
    connectTo({});
    m_connections.release();
    EXPECT_EQ(status(), "");
    EXPECT_THAT(opened(), IsEmpty());
}

void configureTwice() {
    StateMon monitor;
    monitor.helper().addObservers(monitor.tree());
    UpdateStateMonitorConfReq req;
    for (int i = 0; i < 2; ++i) {
        monitor.tree()
            .callApiOp<UnaryOps::UPDATE, UpdateStateMonitorConfReq, UpdateStateMonitorConfResp>(
                "/conf", req);
        // Not in the first one: nobody can open a proxy here.
        req.mutable_statemonitorconf()->add_statemonitorconnecturls("unix:/no/peer");
    }
}

TEST(MonitorConnectionsDeathTest, AreConfiguredOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        configureTwice(),
        R"(Assertion failed: \[!changes\.begin\(\)->second\.at\(0\)\.previous\.get\(\)\])");
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
