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

#include "event_log.h"
#include "fake_cap_mngr.h"
#include "frame_probes.h"
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

using Fixture::EventLog;
using Fixture::FakeCapMngr;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using Hook = std::function<void(LumServiceCtx&)>;

void check(bool condition, const std::string& what) {
    if (!condition) {
        std::cerr << "FAILED: " << what << std::endl;
        std::_Exit(1);
    }
}

/// A gRPC service whose calls last as long as the test wants. Without a service no server starts.
class CallsInFlight : public Capability::Introspection::IntrospectionService::Service {
public:
    /// Lasts until the client or the server cancels it.
    grpc::Status setLogLevel(grpc::ServerContext* context,
                             const Capability::Introspection::SetLogLevelReq* /*request*/,
                             Capability::Introspection::SetLogLevelResp* /*response*/) override {
        m_entered = true;
        m_cancelled = Testing::waitUntil([context] { return context->IsCancelled(); });
        return grpc::Status::CANCELLED;
    }

    /// Lasts until released.
    grpc::Status setAllLogLevels(
        grpc::ServerContext* /*context*/,
        const Capability::Introspection::SetAllLogLevelsReq* /*request*/,
        Capability::Introspection::SetAllLogLevelsResp* /*response*/) override {
        m_entered = true;
        check(Testing::waitUntil([this] { return m_released.load(); }), "never released");
        return grpc::Status::OK;
    }

    bool entered() const { return m_entered; }
    bool cancelled() const { return m_cancelled; }
    void release() { m_released = true; }

private:
    std::atomic<bool> m_entered{false};
    std::atomic<bool> m_cancelled{false};
    std::atomic<bool> m_released{false};
};

/// One frame from its construction to its end, in a separate process.
class ChildFrame {
public:
    explicit ChildFrame(const std::vector<std::string>& arguments = {})
        : m_events(m_notifySocket), m_line(completed(arguments)) {
        const auto before = Fixture::openEventDescriptors();
        m_service = std::make_unique<LumServiceInitializer>(m_line.argc(), m_line.argv());
        for (const int descriptor : Fixture::openEventDescriptors()) {
            if (before.count(descriptor) == 0) {
                m_shutdownDescriptor = descriptor;
            }
        }
    }

    EventLog& events() { return m_events; }
    LumServiceInitializer& service() { return *m_service; }
    std::string port() const { return m_port.text(); }
    std::uint64_t shutdownCount() const { return Fixture::eventCount(m_shutdownDescriptor); }

    void add(const std::string& name, int id, FakeCapMngr::Hooks hooks = {}) {
        m_service->addCapability(
            std::make_unique<FakeCapMngr>(name, id, m_events, std::move(hooks)));
    }

    void initialize() {
        check(m_service->initialize() == 0, "initialize");
        m_service->getServiceCtx().getServerBuilder().RegisterService(&m_calls);
    }

    CallsInFlight& calls() { return m_calls; }

    /// Serves until `whenReady`, which runs on a separate thread, ends it.
    void serve(const std::function<void()>& whenReady) {
        std::thread watcher([&] {
            check(m_notifySocket.waitFor("READY=1"), "not ready");
            whenReady();
        });
        m_service->serverStart();
        m_events.add("served");
        watcher.join();
    }

    void serveUntil(int signalNumber) {
        serve([signalNumber] { kill(getpid(), signalNumber); });
    }

    /// Serves until an exception of this type ends it, whose text becomes an event.
    template <typename Exception>
    void serveInVain() {
        try {
            m_service->serverStart();
            check(false, "no exception");
        } catch (const Exception& error) {
            m_events.add(error.what());
        }
    }

    /// Destroys the frame, prints the events and ends the process.
    [[noreturn]] void leave() {
        m_service.reset();
        print();
        std::exit(0);
    }

    void print() {
        std::ostringstream text;
        for (const auto& event : m_events.all()) {
            text << "|" << (isReadinessRecord(event) ? "[info] is ready" : event);
        }
        std::cerr << text.str() << "|" << std::endl;
    }

private:
    /// The line has the program's name, a version, the process and the port.
    bool isReadinessRecord(const std::string& event) const {
        static const std::regex form(
            "\\[info\\] service_common_test [0-9]+\\.[0-9]+\\.[0-9]+ is ready, pid " +
            std::to_string(getpid()) + ", port " + m_port.text() + "(, extport [0-9]+)?");
        return std::regex_match(event, form);
    }

    std::vector<std::string> completed(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "--logstdout");
        for (auto& argument : arguments) {
            argument = argument == "PORT" ? m_port.text() : argument;
        }
        return arguments;
    }

    Testing::ReservedPort m_port;
    CallsInFlight m_calls;
    Testing::NotifySocket m_notifySocket;
    EventLog m_events;
    Testing::Arguments m_line;
    std::unique_ptr<LumServiceInitializer> m_service;
    int m_shutdownDescriptor = -1;
};

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
