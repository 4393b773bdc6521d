#include "monitor_connections.h"

#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <condition_variable>
#include <random>

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
        std::string letters;
        for (const auto& entry : result.message->monitorstatus().statemonitorconnectionstatus()) {
            letters += "CNG"[entry.connectstatus()];
        }
        return letters;
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

    static void create(StateMonitorService& peer, const std::string& msg) {
        auto report = notification("node", "type", "source/" + msg);
        report.set_msg(msg);
        EXPECT_TRUE(peer.create(report).ok());
    }

    const Testing::LogCapture m_log{"StateMonObsHelper", spdlog::level::info};
    const Testing::TempDir m_folder;
    const std::shared_ptr<std::mutex> m_mutex = std::make_shared<std::mutex>();
    StateMon m_monitor;
    MonitorConnections m_connections{
        m_mutex,
        [this](const std::string& url) {
            grpc::ChannelArguments arguments;
            arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
            arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 100);
            arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 100);
            return AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<Api::StateMonitoringService>(
                grpc::CreateCustomChannel(url, grpc::InsecureChannelCredentials(), arguments),
                m_mutex, nullptr);
        },
        1000};

private:
    void observe(const std::string& keyPattern, Hox::ObserverTree::ObserverCallback callback) {
        ObserveReq req;
        req.set_key_pattern(keyPattern);
        m_handles.emplace_back(
            m_monitor.tree().observe<ObserveReq>("/", req, std::move(callback), 0));
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
    connectTo({"first", "second"});
    const auto second = peer("second");
    create(*second, "of second");
    m_connections.release();
    EXPECT_EQ(status(), "GG");
    EXPECT_THAT(reports(), IsEmpty());
    const auto first = peer("first");
    EXPECT_TRUE(waitForStatus("CC"));
    EXPECT_TRUE(waitForReports({"of second"}));
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

TEST_F(MonitorConnectionsTest, EndAtAnyMoment) {
    std::mt19937 random(3);
    std::uniform_int_distribution<int> delay(0, 30);
    for (int round = 0; round < 20; ++round) {
        StateMon monitor;
        const auto mutex = std::make_shared<std::mutex>();
        auto present = peer("present");
        create(*present, "a");
        MonitorConnections connections(
            mutex,
            [&](const std::string& address) {
                return AsyncGrpcProxyObsTreeBuilder()
                    .createProxyObsTree<Api::StateMonitoringService>(
                        grpc::CreateChannel(address, grpc::InsecureChannelCredentials()), mutex,
                        nullptr);
            },
            1000);
        ObserveReq req;
        req.set_key_pattern("/status");
        std::any handle = monitor.tree().observe<ObserveReq>(
            "/", req,
            [&](const ChangeSetType& changes, const Status& /*status*/) {
                connections.onStatusChanged(changes, monitor.tree());
            },
            0);
        {
            const std::lock_guard<std::mutex> lock(*mutex);
            UpdateStateMonitorStatusReq update;
            for (const std::string name : {"present", "absent", "present too"}) {
                auto& entry = *update.mutable_monitorstatus()->add_statemonitorconnectionstatus();
                entry.set_connectionurl(url(name));
                entry.set_connectstatus(Api::StateMonitorConnectionStatus::NOT_CONNECTED);
            }
            monitor.tree()
                .callApiOp<UnaryOps::UPDATE, UpdateStateMonitorStatusReq,
                           UpdateStateMonitorStatusResp>("/status", update);
        }
        if (round % 4 != 0) {
            connections.release();
        }
        std::mutex idle;
        std::unique_lock<std::mutex> idleLock(idle);
        std::condition_variable().wait_for(idleLock, std::chrono::milliseconds(delay(random)));
        if (round % 3 == 0) {
            present.reset();
        }
        const auto begin = std::chrono::steady_clock::now();
        connections.end();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
        const std::lock_guard<std::mutex> lock(*mutex);
        handle.reset();
    }
}

TEST_F(MonitorConnectionsTest, DoNothingWithoutAddresses) {
    connectTo({});
    m_connections.release();
    EXPECT_EQ(status(), "");
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
