#include <gmock/gmock.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "configuration_store.h"
#include "state_monitoring.grpc.pb.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {
namespace {

namespace Monitor = StateMonitoring::Api;

using Hox::ObserverTree::ProtoStatus;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Keeps the reports; served by a real server.
class StateMonitor : public Monitor::StateMonitoringService::Service {
public:
    StateMonitor() {
        grpc::ServerBuilder builder;
        builder.RegisterService(this);
        m_server = builder.BuildAndStart();
    }
    ~StateMonitor() override { m_server->Shutdown(); }
    StateMonitor(const StateMonitor&) = delete;
    StateMonitor(StateMonitor&&) = delete;
    StateMonitor& operator=(const StateMonitor&) = delete;
    StateMonitor& operator=(StateMonitor&&) = delete;

    std::shared_ptr<Hox::ObserverTree::GrpcProxyObserverTree> proxy() {
        return Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder()
            .createProxyObsTree<Monitor::StateMonitoringService>(
                m_server->InProcessChannel({}), std::make_shared<std::mutex>(), nullptr);
    }

    grpc::Status createStateNotification(
        grpc::ServerContext* /*context*/, const Monitor::CreateStateNotificationReq* request,
        Monitor::CreateStateNotificationResp* /*answer*/) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_reports.push_back(request->statenotification());
        return grpc::Status::OK;
    }

    /// All reports since the last call: each is answered before the next one is sent.
    std::vector<Monitor::StateNotification> take() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_reports, {});
    }

    /// "<severity> <text>" of each.
    std::vector<std::string> takeTexts() {
        std::vector<std::string> texts;
        for (const auto& report : take()) {
            texts.push_back(Monitor::StateSeverity_Name(report.severity()) + " " + report.msg());
        }
        return texts;
    }

private:
    std::unique_ptr<grpc::Server> m_server;
    std::mutex m_mutex;
    std::vector<Monitor::StateNotification> m_reports;  // GUARDED_BY(m_mutex)
};

/// No file can grow during its lifetime, as on a full disk.
class FullDisk {
public:
    FullDisk() : m_handler(std::signal(SIGXFSZ, SIG_IGN)) {
        EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &m_former), 0);
        const rlimit none{1, m_former.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
    }
    ~FullDisk() {
        ::setrlimit(RLIMIT_FSIZE, &m_former);
        std::signal(SIGXFSZ, m_handler);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk(FullDisk&&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;
    FullDisk& operator=(FullDisk&&) = delete;

private:
    rlimit m_former{};
    void (*m_handler)(int);
};

class OwnReports : public ConfigurationStore {
protected:
    OwnReports() { m_handler->setStateTree(m_monitor.proxy()); }
    ~OwnReports() override { m_handler.reset(); }  // its proxy is destroyed before the server

    StateMonitor m_monitor;
};

TEST_F(OwnReports, SayAllThatThereIsToSay) {
    const auto before = std::chrono::system_clock::now().time_since_epoch();
    update(Update("tuner").set("/a", "1"));
    const auto after = std::chrono::system_clock::now().time_since_epoch();
    const auto reports = m_monitor.take();
    ASSERT_EQ(reports.size(), 1U);
    const auto& report = reports.front();
    EXPECT_EQ(report.severity(), Monitor::WARN);
    EXPECT_EQ(report.service_id(), "head-1");
    EXPECT_EQ(report.type(), "Cap_Configuration_SysConfPersisted");
    EXPECT_EQ(report.source(), "sys/conf/update");
    EXPECT_EQ(report.msg(), "Sysconf cap update");
    EXPECT_EQ(report.extendedinfo(), "");
    const auto time = std::chrono::seconds(report.timestamp().seconds()) +
                      std::chrono::nanoseconds(report.timestamp().nanos());
    EXPECT_GE(time, before);
    EXPECT_LE(time, after);
}

TEST_F(OwnReports, FollowWhatIsUnsaved) {
    update(Update("tuner").set("/a", "1"));
    std::string package;
    ASSERT_TRUE(save().isOk());
    ASSERT_TRUE(exportPackage(package).isOk());
    ASSERT_TRUE(discard().isOk());
    ASSERT_TRUE(importPackage(package).isOk());
    ASSERT_TRUE(clear().isOk());
    EXPECT_THAT(
        m_monitor.takeTexts(),
        ElementsAre("WARN Sysconf cap update", "OK Sysconf saved", "OK Sysconf discard changes",
                    "OK Sysconf discard changes", "OK Sysconf discard changes"));
}

TEST_F(OwnReports, OfASaveThatIsRefusedSayAgainThatThereIsSomethingUnsaved) {
    const auto failToSave = [this] {
        const FullDisk disk;
        const auto status = save();
        EXPECT_EQ(status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
        EXPECT_EQ(status.errorMessage().substr(0, 48),
                  "filesystem error: cannot write: File too large [");
    };
    update(Update("tuner").set("/a", "1"));
    EXPECT_THAT(m_monitor.takeTexts(), ElementsAre("WARN Sysconf cap update"));
    failToSave();
    const auto reports = m_monitor.take();
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0].severity(), Monitor::OK);
    EXPECT_EQ(reports[1].severity(), Monitor::WARN);
    EXPECT_EQ(reports[1].msg(), "Sysconf cap update");
    EXPECT_EQ(reports[1].type(), reports[0].type());
    EXPECT_EQ(reports[1].source(), reports[0].source());
    failToSave();
    EXPECT_THAT(m_monitor.takeTexts(), ElementsAre("OK Sysconf saved", "WARN Sysconf cap update"));
    ASSERT_TRUE(save().isOk());
    EXPECT_THAT(m_monitor.takeTexts(), ElementsAre("OK Sysconf saved"));
    failToSave();
    EXPECT_THAT(m_monitor.takeTexts(), ElementsAre("OK Sysconf saved")) << "nothing is unsaved";
    EXPECT_FALSE(fs::exists(m_dir / "conf.temp"));
}

TEST_F(OwnReports, AreNotMadeForADiscardThatIsRefused) {
    update(Update("tuner").set("/a", "1"));
    ASSERT_TRUE(save().isOk());
    update(Update("tuner", m_stateId).set("/a", "2"));
    std::vector<std::string> told;
    const auto handle = observe("tuner", m_stateId, told);
    m_monitor.take();
    fs::create_directory(m_dir / "conf/sys/conf/b");
    fs::create_symlink("data", m_dir / "conf/sys/conf/b/data");  // to itself
    const auto keys = content();
    const auto status = discard();
    EXPECT_EQ(status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
    EXPECT_THAT(status.errorMessage(), ::testing::HasSubstr("conf/sys/conf/b/data"));
    EXPECT_THAT(m_monitor.take(), IsEmpty());
    EXPECT_THAT(told, ElementsAre("6")) << "no observer either";
    EXPECT_EQ(content(), keys);
    fs::remove_all(m_dir / "conf/sys/conf/b");
    ASSERT_TRUE(discard().isOk());
    EXPECT_THAT(m_monitor.takeTexts(), ElementsAre("OK Sysconf discard changes"));
    EXPECT_THAT(told, ElementsAre("6", "0 /__csid /a=1"));
}

TEST_F(OwnReports, AreNotMadeForAPackageThatIsRefused) {
    update(Update("tuner").set("/a", "1"));
    m_monitor.take();
    EXPECT_FALSE(importPackage("garbage").isOk());
    EXPECT_THAT(m_monitor.take(), IsEmpty());
    {
        const FullDisk disk;
        EXPECT_TRUE(clear().isOk()) << "for which no file has to be written";
    }
    EXPECT_THAT(m_monitor.takeTexts(), ElementsAre("OK Sysconf discard changes"));
}

}  // namespace
}  // namespace Hox::Capability::Configuration
