#pragma once

#include <pthread.h>
#include <spdlog/fwd.h>

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "hox/cpputil/semaphore/binary_semaphore.h"
#include "hox/service_common/capability/icap_mngr.h"
#include "hox/service_common/service_initializer/logsystem_initializer.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"

namespace Hox::Service {

class ServerFront;

/// The frame of the service: owns all other objects and drives the life cycle.
///
/// Only one object per process serves. The thread that calls initialize() is the main thread: it
/// also calls serverStart() and the destructor, and the signals are handled there.
class LumServiceInitializer {
public:
    /// Makes the client of the discovery daemon; throws ServiceDiscoveryError if it cannot.
    using DiscoveryClientFactory =
        std::function<std::shared_ptr<Discovery::IServiceDiscoveryClient>()>;

    /// Installs the log system and defines the service's own options. Keeps argv, which must
    /// outlive the object. Asserts that the shutdown descriptor could be created. initialize()
    /// reports a log file that cannot be opened; until then records are written to standard output.
    LumServiceInitializer(int argc, char** argv);

    /// The same with another discovery client than that of the machine's Avahi daemon.
    LumServiceInitializer(int argc, char** argv, DiscoveryClientFactory makeDiscoveryClient);

    /// Joins the shutdown thread and takes the service off the network, then destroys in this
    /// order: capabilities that were never initialised, the capabilities, the server. The shutdown
    /// descriptor stays open and the log system stays installed. If this object handles the
    /// signals, they stay blocked on the calling thread from here on.
    virtual ~LumServiceInitializer();

    LumServiceInitializer(const LumServiceInitializer&) = delete;
    LumServiceInitializer& operator=(const LumServiceInitializer&) = delete;

    /// Parses the command line, connects to the discovery daemon, initialises the capabilities in
    /// the order in which they were added and installs the handlers of SIGINT and SIGTERM. Until
    /// then the signals end the process at once. Without a daemon it waits for one, and says so in
    /// the log after three seconds.
    ///
    /// Returns 0 to continue; 1 to stop, with the help printed on standard output. Asserts that it
    /// is called once, and on one object per process only. Throws std::invalid_argument and
    /// std::out_of_range if both ports are given and one is not a number, the exception of opening
    /// the log file, InitializationError if there is no connection to the system bus, and any
    /// exception of a capability.
    virtual int initialize();

    /// Lets the capability add its options and takes ownership. Called before initialize().
    virtual void addCapability(std::unique_ptr<ICapMngr> capability);

    /// The interface of the frame for the capabilities. Throws InitializationError until
    /// initialize() has returned 0.
    virtual LumServiceCtx& getServiceCtx();

    /// Starts the server and the capabilities, reports readiness to the service manager, and blocks
    /// until the server has shut down.
    ///
    /// Throws InitializationError before initialize(), on a second call and if a listening address
    /// cannot be bound, and any exception of a capability.
    virtual void serverStart();

    /// Requests the shutdown of the running server: it leaves the network at once, and calls in
    /// flight have one second. Without a server, or after the first such call, only the shutdown
    /// descriptor is written. Called by the signal handler; all other callers call it on the main
    /// thread. Asserts that the descriptor could be written.
    virtual void serverShutdown();

private:
    using Hook = void (ICapMngr::*)(LumServiceCtx&);

    static void handleSignal(int signalNumber);
    void installSignalHandlers();
    /// Whether the command line is valid, so that the service can start. Errors of the parser are
    /// logged.
    bool parseOptions(int argc, char** argv, LumServiceCtx& ctx);
    void initGrpcServerBuilder(LumServiceCtx& ctx);
    void initServiceDiscovery(LumServiceCtx& ctx);
    bool startDiscoveryClient();
    void initCapabilities(LumServiceCtx& ctx);
    void callCapabilities(const char* step, Hook hook);
    void buildAndStart();
    void startCapabilities(const std::string& internalAddress);
    void startShutdownThread();
    void endShutdownThread();
    void logReadiness();

    /// Written on shutdown, for threads that poll it; this program does not read it. Never closed.
    static int global_fd_shutdown;
    /// The object that handles the signals. Never reset.
    static std::atomic<LumServiceInitializer*> instance;
    /// Written before `instance`, read only if `instance` is set.
    static std::atomic<pthread_t> mainThread;

    std::exception_ptr m_logFailure;
    std::unique_ptr<LogsystemInitializer> m_logsystemInitializer;
    std::shared_ptr<spdlog::logger> m_logger;
    bool m_isInitialized = false;
    DiscoveryClientFactory m_makeDiscoveryClient;
    std::shared_ptr<Discovery::IServiceDiscoveryClient> m_discoveryClient;
    char** m_argv;
    int m_argc;
    std::shared_ptr<Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder> m_proxyObsTreeBuilder;
    std::unique_ptr<ServerFront> m_serverFront;
    LumServiceCtx m_ctx;
    std::vector<std::unique_ptr<ICapMngr>> m_capabilities;
    /// Created before readiness, because at shutdown it may not be possible to create a thread.
    std::unique_ptr<std::thread> m_shutdownThread;
    std::atomic<bool> m_isShuttingDown{false};     // used by the main thread only, until it posts
    CppUtil::BinarySemaphore m_shutdownRequested;  // also posted at the end of this object
};

}  // namespace Hox::Service
