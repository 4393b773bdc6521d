#pragma once

#include <grpcpp/server_builder.h>
#include <poll.h>
#include <spdlog/logger.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "hox/cpputil/log/logger_name.h"
#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Service {

/// Accepts the connections of a server's clients and passes them to the server.
///
/// The server's own listener gives up its port permanently if no descriptor is left for a
/// connection. Here connections wait in the kernel instead. They also wait while only the last
/// descriptors are left: these are reserved for the service's own files.
class ConnectionAcceptor {
public:
    /// The number of descriptors that connections leave to the rest of the process.
    static constexpr int sparedDescriptors = 16;

    /// Prepares the builder's server for accepted connections. Nothing is accepted before start().
    explicit ConnectionAcceptor(grpc::ServerBuilder& builder);

    /// Calls stop() if that has not been done.
    ~ConnectionAcceptor();
    ConnectionAcceptor(const ConnectionAcceptor&) = delete;
    ConnectionAcceptor(ConnectionAcceptor&&) = delete;
    ConnectionAcceptor& operator=(const ConnectionAcceptor&) = delete;
    ConnectionAcceptor& operator=(ConnectionAcceptor&&) = delete;

    /// Listens at the addresses of the host. Called before start(). Throws InitializationError on
    /// failure.
    void listen(const std::string& host, const std::string& port);

    /// Starts the thread; called once, while the server runs. Throws FileDescriptorError if there
    /// is no descriptor and std::system_error if there is no thread for it.
    void start();

    /// Ends the thread and closes the ports; called before the server's shutdown, by one thread at
    /// a time.
    void stop();

private:
    void run();
    bool waitForConnection(std::vector<pollfd>& polled) const;
    void accept(int listener);
    static bool mayAccept(int listener);
    void noteShortage(bool isShort);

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    std::shared_ptr<spdlog::logger> m_logger;
    std::unique_ptr<grpc::experimental::ExternalConnectionAcceptor> m_server;
    std::vector<LinuxCppUtil::OwnedFileDescriptor> m_listeners;
    LinuxCppUtil::OwnedFileDescriptor m_stop;  // event that ends the thread
    bool m_isShort = false;                    // used by the thread only
    std::thread m_thread;
};

}  // namespace Hox::Service
