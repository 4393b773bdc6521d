#include <gmock/gmock.h>
#include <grpcpp/client_context.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/server_builder.h>
#include <grpcpp/support/server_interceptor.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "child_frame.h"
#include "event_log.h"
#include "fake_cap_mngr.h"
#include "frame_probes.h"
#include "grpc/health/v1/health.grpc.pb.h"
#include "hox/cpputil/error/initialization_error.h"
#include "hox/service_common/service_initializer/lum_service_initializer.h"
#include "hox/testing/arguments.h"
#include "hox/testing/notify_socket.h"
#include "hox/testing/reserved_port.h"
#include "hox/testing/wait_until.h"
#include "introspection.grpc.pb.h"

// A serving frame takes over the signals of its process permanently. So each of these tests runs a
// frame in a child process, which prints the events.

namespace Hox::Service {
namespace {

using Fixture::check;
using Fixture::ChildFrame;
using Fixture::EventLog;
using Fixture::FakeCapMngr;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using Hook = std::function<void(LumServiceCtx&)>;

/// Owned by the server into which it is built, and so destroyed with it.
class ServerWatch : public grpc::experimental::ServerInterceptorFactoryInterface {
public:
    explicit ServerWatch(EventLog& events) : m_events(events) {}
    ~ServerWatch() override { m_events.add("server gone"); }

    grpc::experimental::Interceptor* CreateServerInterceptor(
        grpc::experimental::ServerRpcInfo* /*info*/) override {
        return nullptr;
    }

private:
    EventLog& m_events;
};

void watchServer(LumServiceCtx& ctx, EventLog& events) {
    std::vector<std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface>> watches;
    watches.push_back(std::make_unique<ServerWatch>(events));
    ctx.getServerBuilder().experimental().SetInterceptorCreators(std::move(watches));
}

/// The events of a run with A alone, from the server's start to readiness.
std::string startOfA() {
    return "|[debug] serverStarted: configuration|A.serverStarted locked"
           "|[debug] proxyObsTreesReady: configuration|A.proxyObsTreesReady locked"
           "|[debug] Started serving proxy observer trees|notify READY=1|[info] is ready";
}

class ServingFrameDeathTest : public ::testing::Test {
protected:
    ServingFrameDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

bool isServing(LumServiceCtx& ctx) {
    const auto stub = grpc::health::v1::Health::NewStub(
        ctx.getGrpcServer()->InProcessChannel(grpc::ChannelArguments()));
    grpc::ClientContext context;
    grpc::health::v1::HealthCheckResponse response;
    check(stub->Check(&context, {}, &response).ok(), "no answer about the health");
    return response.status() == grpc::health::v1::HealthCheckResponse::SERVING;
}

[[noreturn]] void serveOnceReady() {
    ChildFrame frame({"--port", "PORT", "--id", "head-1"});
    FakeCapMngr::Hooks hooks;
    hooks.serverStarted = [](LumServiceCtx& ctx) {
        check(!isServing(ctx), "serving at the server's start");
    };
    hooks.proxyObsTreesReady = [](LumServiceCtx& ctx) {
        check(!isServing(ctx), "serving before readiness");
    };
    frame.add("A", 18, hooks);
    frame.initialize();
    frame.serve([&frame] {
        auto& ctx = frame.service().getServiceCtx();
        check(Testing::waitUntil([&ctx] { return isServing(ctx); }), "not serving when ready");
        kill(getpid(), SIGTERM);
    });
    frame.leave();
}

TEST_F(ServingFrameDeathTest, IsHealthyFromReadinessOn) {
    EXPECT_EXIT(serveOnceReady(), ExitedWithCode(0), "notify READY=1");
}

[[noreturn]] void runWholeLife() {
    ChildFrame frame({"--port", "PORT", "--id", "head-1"});
    FakeCapMngr::Hooks hooks;
    hooks.initCapability = [&](LumServiceCtx& ctx) {
        check(ctx.getGrpcServer() == nullptr, "a server before its time");
        watchServer(ctx, frame.events());
    };
    hooks.serverStarted = [](LumServiceCtx& ctx) {
        check(ctx.getGrpcServer() != nullptr, "no server");
    };
    frame.add("A", 18, hooks);
    frame.add("B", 14);
    frame.initialize();
    const std::string address = "Started gRPC server on address localhost:" + frame.port();
    frame.serveUntil(SIGTERM);
    check(frame.events().count("[debug] " + address) == 1, "no line of the address");
    frame.leave();
}

TEST_F(ServingFrameDeathTest, CallsTheCapabilitiesInOrderUnderTheirLocks) {
    EXPECT_EXIT(runWholeLife(), ExitedWithCode(0),
                ::testing::ContainsRegex(
                    "\\|A.addOptions unlocked\\|B.addOptions unlocked"
                    "\\|\\[debug\\] initCapabilities: configuration\\|A.initCapability locked"
                    "\\|\\[debug\\] initCapabilities: state_monitoring_uservice"
                    "\\|B.initCapability locked"
                    "\\|\\[debug\\] Started gRPC server on address localhost:[0-9]+"
                    "\\|\\[debug\\] serverStarted: configuration\\|A.serverStarted locked"
                    "\\|\\[debug\\] serverStarted: state_monitoring_uservice"
                    "\\|B.serverStarted locked"
                    "\\|\\[debug\\] proxyObsTreesReady: configuration\\|A.proxyObsTreesReady locked"
                    "\\|\\[debug\\] proxyObsTreesReady: state_monitoring_uservice"
                    "\\|B.proxyObsTreesReady locked"
                    "\\|\\[debug\\] Started serving proxy observer trees\\|notify READY=1"
                    "\\|\\[info\\] is ready"
                    "\\|notify STOPPING=1\\|\\[info\\] Shutting down server"
                    "\\|served\\|A gone\\|B gone\\|server gone\\|"));
}

[[noreturn]] void runWithoutId() {
    ChildFrame frame({"--port", "PORT"});
    frame.initialize();
    const ServiceIdentity& identity = frame.service().getServiceCtx().getIdentity();
    check(identity.id.empty() && identity.nodeId == "0" && identity.nodeType == "mb", "identity");
    frame.serveUntil(SIGINT);
    frame.leave();
}

TEST_F(ServingFrameDeathTest, ServesWithoutAnId) {
    EXPECT_EXIT(runWithoutId(), ExitedWithCode(0),
                HasSubstr("notify READY=1|[info] is ready|notify STOPPING=1|"
                          "[info] Shutting down server|served|"));
}

[[noreturn]] void runWithAllOptions() {
    ChildFrame frame({"--port", "08080", "--id", "head-1", "-c", "/data", "--ccsaddr", "store:1",
                      "--epgaddr", "guide:2", "--dispatcheraddr", "d:3", "--hendaddr", "h:4",
                      "--extport", "8081", "stray"});
    frame.initialize();
    LumServiceCtx& ctx = frame.service().getServiceCtx();
    check(ctx.getIdentity().id == "head-1", "id");
    check(ctx.getIdentity().nodeId == "0", "nodeId");
    check(ctx.getIdentity().nodeType == "mb", "nodeType");
    check(ctx.optionValue("port") == "08080", "port");
    check(ctx.optionValue("extport") == "8081", "extport");
    check(ctx.optionValue("dispatcheraddr") == "d:3", "dispatcheraddr");
    check(ctx.optionValue("hendaddr") == "h:4", "hendaddr");
    check(ctx.optionCount("logstdout") == 1, "logstdout");
    const CapabilityPaths paths = ctx.getCapabilityPaths("configuration");
    check(paths.ccsAddress == "store:1", "ccsaddr");
    check(paths.epgAddress == "guide:2", "epgaddr");
    check(paths.confPath == "/data/configuration", "confPath");
    check(paths.statePath == "/data/state/configuration", "statePath");
    frame.leave();
}

TEST_F(ServingFrameDeathTest, OffersTheOptionsInItsContext) {
    EXPECT_EXIT(runWithAllOptions(), ExitedWithCode(0), "");
}

[[noreturn]] void runWithDefaults() {
    ChildFrame frame({"--port", "abc"});
    frame.initialize();
    LumServiceCtx& ctx = frame.service().getServiceCtx();
    check(ctx.getConfigDir() == "/var/lib/halvo", "configdir");
    check(ctx.optionValue("configdir") == "/var/lib/halvo", "configdir's value");
    check(ctx.optionValue("epgaddr") == "localhost:5004", "epgaddr");
    check(ctx.optionValue("dispatcheraddr") == "localhost:5000", "dispatcheraddr");
    check(ctx.optionValue("hendaddr") == "localhost:5001", "hendaddr");
    check(ctx.optionValue("ccsaddr").empty(), "ccsaddr");
    check(ctx.getCapabilityPaths("x").ccsAddress.empty(), "ccsAddress");
    check(ctx.getCapabilityPaths("x").epgAddress.empty(), "epgAddress");
    frame.leave();
}

TEST_F(ServingFrameDeathTest, HasDefaultsAndTakesAnyTextForAPort) {
    EXPECT_EXIT(runWithDefaults(), ExitedWithCode(0), "");
}

/// The local addresses, in the kernel's notation, at which a socket listens on the port.
std::string listenersOn(std::uint16_t port) {
    std::ostringstream suffix;
    suffix << ':' << std::hex << std::uppercase;
    suffix.width(4);
    suffix.fill('0');
    suffix << port;
    std::string listeners;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream file(table);
        std::string line;
        while (std::getline(file, line)) {
            std::istringstream words(line);
            std::string number;
            std::string local;
            std::string remote;
            std::string state;
            words >> number >> local >> remote >> state;
            const std::size_t colon = local.find(':');
            if (state == "0A" && local.substr(colon) == suffix.str()) {
                listeners += local.substr(0, colon) + " ";
            }
        }
    }
    return listeners;
}

[[noreturn]] void runOnBothPorts() {
    const Testing::ReservedPort external;
    ChildFrame frame({"--port", "PORT", "--extport", external.text()});
    frame.initialize();
    frame.serve([&] {
        const std::string internalListeners =
            listenersOn(static_cast<std::uint16_t>(std::stoi(frame.port())));
        check(internalListeners.find("0100007F") != std::string::npos ||
                  internalListeners.find("01000000 ") != std::string::npos,
              "nobody on the loopback interface: " + internalListeners);
        check(internalListeners.find("00000000 ") == std::string::npos,
              "port is open to all: " + internalListeners);
        const std::string externalListeners = listenersOn(external.number());
        check(externalListeners.find("00000000 ") != std::string::npos,
              "extport is not open to all: " + externalListeners);
        kill(getpid(), SIGTERM);
    });
    frame.leave();
}

TEST_F(ServingFrameDeathTest, ListensOnLoopbackAndOnRequestOnAllInterfaces) {
    EXPECT_EXIT(runOnBothPorts(), ExitedWithCode(0), "");
}

/// Sends two signals that wait for the end of the hooks, one of them twice.
[[noreturn]] void runSignalledDuringStart() {
    ChildFrame frame({"--port", "PORT"});
    FakeCapMngr::Hooks hooks;
    hooks.serverStarted = [](LumServiceCtx&) { kill(getpid(), SIGTERM); };
    hooks.proxyObsTreesReady = [](LumServiceCtx&) {
        kill(getpid(), SIGINT);
        kill(getpid(), SIGTERM);
    };
    frame.add("A", 18, hooks);
    frame.initialize();
    frame.service().serverStart();
    frame.events().add("served");
    // The repeated signal counts twice if another thread passes it on late.
    check(Testing::waitUntil([&] { return frame.shutdownCount() >= 2; }), "two writes");
    frame.leave();
}

TEST_F(ServingFrameDeathTest, HandlesSignalsOfItsStartOnceItServes) {
    EXPECT_EXIT(
        runSignalledDuringStart(), ExitedWithCode(0),
        HasSubstr(startOfA() + "|notify STOPPING=1|[info] Shutting down server|served|A gone|\n"));
}

[[noreturn]] void runSignalledAgain() {
    ChildFrame frame({"--port", "PORT"});
    frame.initialize();
    frame.serveUntil(SIGTERM);
    check(frame.shutdownCount() == 1, "one write");
    raise(SIGTERM);
    check(frame.shutdownCount() == 2, "two writes");
    raise(SIGINT);
    check(frame.shutdownCount() == 3, "three writes");
    frame.leave();
}

TEST_F(ServingFrameDeathTest, StopsOnceHoweverOftenItIsSignalled) {
    EXPECT_EXIT(runSignalledAgain(), ExitedWithCode(0),
                HasSubstr("|notify READY=1|[info] is ready|notify STOPPING=1|"
                          "[info] Shutting down server|served|\n"));
}

[[noreturn]] void runSignalledBeforeServer() {
    ChildFrame frame({"--port", "PORT"});
    frame.add("A", 18);
    frame.initialize();
    raise(SIGTERM);
    check(frame.shutdownCount() == 1, "one write");
    frame.events().add("signalled");
    frame.serveUntil(SIGTERM);
    check(frame.shutdownCount() == 2, "two writes");
    frame.leave();
}

TEST_F(ServingFrameDeathTest, ServesAfterASignalThatCameBeforeTheServer) {
    EXPECT_EXIT(runSignalledBeforeServer(), ExitedWithCode(0),
                ::testing::AllOf(::testing::ContainsRegex(
                                     "\\|signalled\\|\\[debug\\] Started gRPC server on address "
                                     "localhost:[0-9]+\\|\\[debug\\] serverStarted"),
                                 HasSubstr(startOfA() + "|notify STOPPING=1|[info] Shutting down "
                                                        "server|served|A gone|\n")));
}

[[noreturn]] void runSignalledOnAnotherThread() {
    ChildFrame frame({"--port", "PORT"});
    frame.initialize();
    frame.serve([] { pthread_kill(pthread_self(), SIGTERM); });
    frame.leave();
}

TEST_F(ServingFrameDeathTest, TakesASignalThatReachesAnotherThread) {
    EXPECT_EXIT(runSignalledOnAnotherThread(), ExitedWithCode(0),
                HasSubstr("|notify STOPPING=1|[info] Shutting down server|served|\n"));
}

[[noreturn]] void runSignalledAtTheEnd() {
    auto frame = std::make_unique<ChildFrame>(std::vector<std::string>{"--port", "PORT"});
    frame->initialize();
    frame->serveUntil(SIGTERM);
    frame.reset();
    kill(getpid(), SIGTERM);
    kill(getpid(), SIGINT);
    std::exit(0);
}

TEST_F(ServingFrameDeathTest, IgnoresSignalsOnceItHasGone) {
    EXPECT_EXIT(runSignalledAtTheEnd(), ExitedWithCode(0), "");
}

[[noreturn]] void runOnABadPort() {
    ChildFrame frame({"--port", "abc"});
    frame.add("A", 18);
    frame.initialize();
    frame.serveInVain<CppUtil::InitializationError>();
    frame.leave();
}

TEST_F(ServingFrameDeathTest, RefusesAPortThatCannotBeBound) {
    EXPECT_EXIT(runOnABadPort(), ExitedWithCode(0),
                ::testing::ContainsRegex(
                    "\\|A.initCapability locked\\|Initialization Error: Unable to start gRPC "
                    "server on address localhost:abc - Servname not supported for ai_socktype"
                    "\\(.*listening_sockets\\.cpp:[0-9]+\\)\\|A gone\\|\n"));
}

[[noreturn]] void runTwice() {
    ChildFrame frame({"--port", "PORT"});
    frame.initialize();
    frame.serveUntil(SIGTERM);
    frame.serveInVain<CppUtil::InitializationError>();
    frame.leave();
}

TEST_F(ServingFrameDeathTest, ServesOnlyOnce) {
    EXPECT_EXIT(runTwice(), ExitedWithCode(0),
                ::testing::ContainsRegex("\\|Initialization Error: Server already started\\(.*"
                                         "lum_service_initializer\\.cpp:[0-9]+\\)\\|\n"));
}

/// Lets an exception of the hook end the serving.
[[noreturn]] void runWithFailingHook(FakeCapMngr::Hooks hooks) {
    ChildFrame frame({"--port", "PORT"});
    frame.add("A", 18, std::move(hooks));
    frame.initialize();
    const auto mutex = frame.service().getServiceCtx().getCapabilities().front().second->getMutex();
    frame.serveInVain<std::runtime_error>();
    check(Fixture::isFree(*mutex), "the mutex is free");
    check(!frame.service().getServiceCtx().getCapabilityLock(), "the slot is empty");
    check(frame.events().count("notify READY=1") == 0, "not ready");
    frame.leave();
}

const Hook failingHook = [](LumServiceCtx&) { throw std::runtime_error("no such hardware"); };

TEST_F(ServingFrameDeathTest, LetsExceptionsOfItsHooksPass) {
    FakeCapMngr::Hooks started;
    started.serverStarted = failingHook;
    EXPECT_EXIT(runWithFailingHook(started), ExitedWithCode(0),
                HasSubstr("|A.serverStarted locked|no such hardware|"));
    FakeCapMngr::Hooks ready;
    ready.proxyObsTreesReady = failingHook;
    EXPECT_EXIT(runWithFailingHook(ready), ExitedWithCode(0),
                HasSubstr("|A.proxyObsTreesReady locked|no such hardware|"));
}

std::unique_ptr<Capability::Introspection::IntrospectionService::Stub> connect(ChildFrame& frame) {
    return Capability::Introspection::IntrospectionService::NewStub(
        grpc::CreateChannel("ipv4:127.0.0.1:" + frame.port(), grpc::InsecureChannelCredentials()));
}

[[noreturn]] void runWithACallThatEndsInTime() {
    ChildFrame frame({"--port", "PORT"});
    frame.initialize();
    grpc::Status status;
    frame.serve([&] {
        std::thread caller([&] {
            grpc::ClientContext context;
            Capability::Introspection::SetAllLogLevelsResp response;
            status = connect(frame)->setAllLogLevels(&context, {}, &response);
        });
        check(Testing::waitUntil([&] { return frame.calls().entered(); }), "not called");
        kill(getpid(), SIGTERM);
        check(Testing::waitUntil([&] { return frame.shutdownCount() == 1; }), "not stopping");
        const auto& client = frame.service().getServiceCtx().getDiscoveryClient();
        check(Testing::waitUntil([&] { return !client->isStarted(); }), "still on the network");
        frame.calls().release();
        caller.join();
    });
    check(status.ok(), "the call ended with " + status.error_message());
    frame.leave();
}

TEST_F(ServingFrameDeathTest, LetsCallsInFlightEnd) {
    EXPECT_EXIT(runWithACallThatEndsInTime(), ExitedWithCode(0), "");
}

[[noreturn]] void runWithACallThatNeverEnds() {
    ChildFrame frame({"--port", "PORT"});
    frame.initialize();
    using Clock = std::chrono::steady_clock;
    Clock::time_point signalled;
    frame.serve([&] {
        std::thread caller([&] {
            grpc::ClientContext context;
            Capability::Introspection::SetLogLevelResp response;
            check(!connect(frame)->setLogLevel(&context, {}, &response).ok(), "the call was OK");
        });
        check(Testing::waitUntil([&] { return frame.calls().entered(); }), "not called");
        signalled = Clock::now();
        kill(getpid(), SIGTERM);
        caller.join();
    });
    const auto lasted = Clock::now() - signalled;
    check(frame.calls().cancelled(), "the call was not cancelled");
    check(lasted >= std::chrono::milliseconds(900), "less than a second of grace");
    frame.leave();
}

TEST_F(ServingFrameDeathTest, CancelsCallsInFlightAfterASecond) {
    EXPECT_EXIT(runWithACallThatNeverEnds(), ExitedWithCode(0), "");
}

/// A hook may release its lock while it blocks.
[[noreturn]] void runWithYieldingHook() {
    ChildFrame frame({"--port", "PORT"});
    FakeCapMngr::Hooks hooks;
    hooks.initCapability = [](LumServiceCtx& ctx) {
        auto& lock = *ctx.getCapabilityLock();
        lock.unlock();
        check(Fixture::isFree(*lock.mutex()), "the mutex is free meanwhile");
        lock.lock();
    };
    frame.add("A", 18, hooks);
    frame.initialize();
    check(!frame.service().getServiceCtx().getCapabilityLock(), "the slot is empty");
    frame.leave();
}

TEST_F(ServingFrameDeathTest, LetsAHookLetGoOfItsLock) {
    EXPECT_EXIT(runWithYieldingHook(), ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Hox::Service
