#include "hox/service_common/service_initializer/lum_service_initializer.h"

#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <spdlog/logger.h>
#include <sys/eventfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cxxopts.hpp>
#include <mutex>
#include <string>
#include <utility>

#include "discovery/daemon_wait_notice.h"
#include "discovery/publications.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/error/initialization_error.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/cpputil/log/stdout_logger.h"
#include "hox/service_common/capability/lum_capabilities.h"
#include "hox/service_discovery/avahi/avahi_service_discovery_client.h"
#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/version.h"
#include "server/server_front.h"
#include "service_initializer/descriptor_limit.h"
#include "service_initializer/service_options.h"
#include "service_initializer/signal_block.h"

#if defined(__SANITIZE_THREAD__)
extern "C" int __sigaction(int, const struct sigaction*, struct sigaction*);
#endif

namespace Hox::Service {

namespace {

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer's own function delays signals while a thread waits in a way unknown to it, as the
// main thread waits for the server.
constexpr auto setAction = &__sigaction;
#else
constexpr auto setAction = &sigaction;
#endif

constexpr std::chrono::nanoseconds shutdownGrace{1000000000};

/// How long the start of the discovery client is tried again: a bus or a daemon that is restarted
/// meanwhile ends an attempt.
constexpr std::chrono::seconds discoveryPatience{10};
constexpr std::chrono::seconds discoveryPause{1};

/// Holds a mutex in the context's slot during its lifetime. Code that finds it there may release it
/// for a while.
class SlotLock {
public:
    SlotLock(std::mutex& mutex, LumServiceCtx& ctx) : m_slot(ctx.getCapabilityLock()) {
        m_slot = std::make_unique<std::unique_lock<std::mutex>>(mutex);
    }
    ~SlotLock() { m_slot.reset(); }
    SlotLock(const SlotLock&) = delete;
    SlotLock& operator=(const SlotLock&) = delete;

private:
    LumServiceCtx::CapabilityLock& m_slot;
};

void callLocked(ICapMngr& capability, void (ICapMngr::*hook)(LumServiceCtx&), LumServiceCtx& ctx) {
    const SlotLock lock(*capability.getMutex(), ctx);
    (capability.*hook)(ctx);
}

/// A user who may not open the log file still gets the parser's text and the help, on standard
/// output.
std::unique_ptr<LogsystemInitializer> installLogsystem(int argc, char** argv,
                                                       std::exception_ptr& failure) {
    try {
        return std::make_unique<LogsystemInitializer>(argc, argv);
    } catch (const spdlog::spdlog_ex&) {
        failure = std::current_exception();
        Log::setLogsystem(std::make_unique<Log::StdoutLogger>(spdlog::level::info));
        return nullptr;
    }
}

}  // namespace

int LumServiceInitializer::global_fd_shutdown = -1;
std::atomic<LumServiceInitializer*> LumServiceInitializer::instance{nullptr};
std::atomic<pthread_t> LumServiceInitializer::mainThread{};

LumServiceInitializer::LumServiceInitializer(int argc, char** argv)
    : LumServiceInitializer(argc, argv, [] {
          return std::make_shared<Discovery::Avahi::AvahiServiceDiscoveryClient>();
      }) {}

LumServiceInitializer::LumServiceInitializer(int argc, char** argv,
                                             DiscoveryClientFactory makeDiscoveryClient)
    : m_logsystemInitializer(installLogsystem(argc, argv, m_logFailure)),
      m_logger(Log::getLogsystem()->getLogger("ServiceInitializer")),
      m_makeDiscoveryClient(std::move(makeDiscoveryClient)),
      m_argv(argv),
      m_argc(argc),
      m_proxyObsTreeBuilder(std::make_shared<ObserverTree::AsyncGrpcProxyObsTreeBuilder>()),
      m_serverFront(std::make_unique<ServerFront>()),
      m_ctx(argc > 0 && argv != nullptr ? argv[0] : "", m_proxyObsTreeBuilder) {
    addServiceOptions(m_ctx);
    global_fd_shutdown = eventfd(0, 0);
    HOX_ASSERT(global_fd_shutdown > 0);
}

LumServiceInitializer::~LumServiceInitializer() {
    if (instance == this) {
        // The signal handler keeps its pointer to this object, even after its destruction.
        SignalBlock::forever();
    }
    endShutdownThread();
    m_serverFront->close();
}

int LumServiceInitializer::initialize() {
    HOX_ASSERT(!m_isInitialized);
    if (!parseOptions(m_argc, m_argv, m_ctx)) {
        printHelp(m_ctx);
        return 1;
    }
    if (m_logFailure) {
        std::rethrow_exception(m_logFailure);
    }
    raiseDescriptorLimit();
    m_ctx.setIdentity(ServiceIdentity{m_ctx.optionValue("id"), "0", "mb"});
    initGrpcServerBuilder(m_ctx);
    initServiceDiscovery(m_ctx);
    initCapabilities(m_ctx);
    CppUtil::getAssertion().assertTrue(instance == nullptr, "instance == NULL",
                                       "Cannot instantiate more than one service per binary.",
                                       __FILE__, __LINE__);
    installSignalHandlers();
    m_isInitialized = true;
    return 0;
}

void LumServiceInitializer::addCapability(std::unique_ptr<ICapMngr> capability) {
    capability->addOptions(m_ctx.getOptions());
    m_capabilities.push_back(std::move(capability));
}

LumServiceCtx& LumServiceInitializer::getServiceCtx() {
    if (!m_isInitialized) {
        throw CppUtil::InitializationError("Service context not initialized!!", __FILE__, __LINE__);
    }
    return m_ctx;
}

void LumServiceInitializer::serverStart() {
    const std::string internalAddress = "localhost:" + m_ctx.optionValue("port");
    if (!m_isInitialized) {
        throw CppUtil::InitializationError("Service is uninitialized", __FILE__, __LINE__);
    }
    if (m_ctx.getGrpcServer()) {
        throw CppUtil::InitializationError("Server already started", __FILE__, __LINE__);
    }
    startShutdownThread();
    buildAndStart();
    startCapabilities(internalAddress);
    m_ctx.getGrpcServer()->Wait();
}

void LumServiceInitializer::serverShutdown() {
    const int rc = eventfd_write(global_fd_shutdown, 1);
    HOX_ASSERT(rc != -1);
    if (!m_ctx.getGrpcServer() || m_isShuttingDown.exchange(true)) {
        return;
    }
    m_ctx.setEnding();
    sd_notify(0, "STOPPING=1");
    m_logger->log(Log::here(), spdlog::level::info, "Shutting down server");
    // Shutdown must not run in a signal handler.
    m_shutdownRequested.post();
}

void LumServiceInitializer::startShutdownThread() {
    m_shutdownThread = std::make_unique<std::thread>([this] {
        m_shutdownRequested.wait();
        if (m_isShuttingDown) {
            const auto deadline = std::chrono::system_clock::now() + shutdownGrace;
            m_serverFront->close();
            m_ctx.getProxyObsTreeHelper().inProcessGate()->close();
            // May last as long as the grace of the calls in flight, so it is a part of it.
            m_ctx.getPublications().end();
            m_ctx.getGrpcServer()->Shutdown(deadline);
        }
    });
}

void LumServiceInitializer::endShutdownThread() {
    if (m_shutdownThread) {
        m_shutdownRequested.post();
        m_shutdownThread->join();
        m_shutdownThread.reset();
    }
}

/// Runs on any thread that does not block the signals. Only the main thread may continue: it
/// handles signals at points where it holds no lock, while another thread may be in the middle of a
/// log call.
void LumServiceInitializer::handleSignal(int signalNumber) {
    const int formerErrno = errno;
    if (LumServiceInitializer* service = instance) {
        SignalBlock::note();  // the object may be gone, unless this is the main thread
        if (pthread_equal(pthread_self(), mainThread) != 0) {
            service->serverShutdown();
        } else {
            pthread_kill(mainThread, signalNumber);
        }
    }
    errno = formerErrno;
}

void LumServiceInitializer::installSignalHandlers() {
    mainThread = pthread_self();
    instance = this;

    struct sigaction action {};
    action.sa_handler = &LumServiceInitializer::handleSignal;
    action.sa_mask = SignalBlock::signals();  // neither signal interrupts the handling of the other
    action.sa_flags = SA_RESTART;
    setAction(SIGINT, &action, nullptr);
    setAction(SIGTERM, &action, nullptr);
}

bool LumServiceInitializer::parseOptions(int argc, char** argv, LumServiceCtx& ctx) {
    try {
        ctx.parseOptions(argc, argv);
    } catch (const cxxopts::exceptions::exception& error) {
        m_logger->log(Log::here(), spdlog::level::err, "{}", error.what());
        return false;
    }
    if (ctx.optionCount("help") > 0 || ctx.optionCount("port") == 0) {
        return false;
    }
    if (ctx.optionCount("extport") == 0) {
        return true;
    }
    const int port = std::stoi(ctx.optionValue("port"));
    const int externalPort = std::stoi(ctx.optionValue("extport"));
    return port != externalPort;
}

void LumServiceInitializer::initGrpcServerBuilder(LumServiceCtx& ctx) {
    auto builder = std::make_unique<grpc::ServerBuilder>();
    m_serverFront->prepare(*builder);
    ctx.setServerBuilder(std::move(builder));
}

void LumServiceInitializer::initServiceDiscovery(LumServiceCtx& ctx) {
    try {
        DaemonWaitNotice notice(m_logger);
        m_discoveryClient = m_makeDiscoveryClient();
        ctx.setDiscoveryClient(m_discoveryClient);
        m_discoveryClient->setCallback(
            [&ctx](const Discovery::Status& status) { ctx.discoveryCallback(status); });
        if (!startDiscoveryClient()) {
            throw CppUtil::InitializationError("Unable to connect to service discovery backend",
                                               __FILE__, __LINE__);
        }
        notice.daemonAppeared();
    } catch (const Discovery::ServiceDiscoveryError& error) {
        m_logger->log(Log::here(), spdlog::level::err, "{}", error.what());
        throw CppUtil::InitializationError("Unable to initialize service discovery.", __FILE__,
                                           __LINE__);
    }
}

bool LumServiceInitializer::startDiscoveryClient() {
    std::chrono::steady_clock::time_point firstFailure;
    for (bool hasFailed = false;; hasFailed = true) {
        try {
            return m_discoveryClient->start();
        } catch (const Discovery::ServiceDiscoveryError& error) {
            const auto now = std::chrono::steady_clock::now();
            firstFailure = hasFailed ? firstFailure : now;
            if (now - firstFailure >= discoveryPatience) {
                throw;
            }
            m_logger->log(Log::here(), spdlog::level::debug, "{}", error.what());
        }
        std::this_thread::sleep_for(discoveryPause);
    }
}

void LumServiceInitializer::initCapabilities(LumServiceCtx& ctx) {
    for (auto& capability : m_capabilities) {
        m_logger->log(Log::here(), spdlog::level::debug, "initCapabilities: {}",
                      capabilityName(capability->id()));
        callLocked(*capability, &ICapMngr::initCapability, ctx);
        ctx.addCapability(std::move(capability));
    }
    m_capabilities.clear();
}

void LumServiceInitializer::callCapabilities(const char* step, Hook hook) {
    for (const auto& [id, capability] : m_ctx.getCapabilities()) {
        m_logger->log(Log::here(), spdlog::level::debug, "{}: {}", step, capabilityName(id));
        callLocked(*capability, hook, m_ctx);
    }
}

void LumServiceInitializer::buildAndStart() {
    m_serverFront->listen(m_ctx.optionValue("port"), m_ctx.optionValue("extport"));
    m_ctx.setGrpcServer(m_ctx.getServerBuilder().BuildAndStart());
}

/// From here until the main thread waits for the server, a signal would interrupt log calls and
/// hooks: it is handled after them.
void LumServiceInitializer::startCapabilities(const std::string& internalAddress) {
    const SignalBlock block;
    m_logger->log(Log::here(), spdlog::level::debug, "Started gRPC server on address {}",
                  internalAddress);
    if (!m_ctx.getGrpcServer()) {
        // The registered services keep a pointer to the failed server: continuing would crash.
        throw CppUtil::InitializationError(
            "Unable to start gRPC server on address " + internalAddress, __FILE__, __LINE__);
    }
    m_serverFront->open();
    callCapabilities("serverStarted", &ICapMngr::serverStarted);
    callCapabilities("proxyObsTreesReady", &ICapMngr::proxyObsTreesReady);
    m_logger->log(Log::here(), spdlog::level::debug, "Started serving proxy observer trees");
    m_serverFront->setServing();
    sd_notify(0, "READY=1");
    logReadiness();
}

void LumServiceInitializer::logReadiness() {
    const auto externalPort = m_ctx.optionValue("extport");
    m_logger->log(Log::here(), spdlog::level::info, "{} {} is ready, pid {}, port {}{}",
                  program_invocation_short_name, HALVO_VERSION, ::getpid(),
                  m_ctx.optionValue("port"),
                  externalPort.empty() ? "" : ", extport " + externalPort);
}

}  // namespace Hox::Service
