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

/// Accepts the connections of a server's clients and hands them to the server.
///
/// The server's own listener gives its port up for good when no descriptor is left for a
/// connection. Here connections wait in the kernel then. So do they while only the last descriptors
/// are left: those are for the service's own files.
class ConnectionAcceptor {
public:
    /// How many descriptors connections leave to the rest of the process.
    static constexpr int sparedDescriptors = 16;

    /// Prepares the builder's server to be given connections. Nothing is accepted before start().
    explicit ConnectionAcceptor(grpc::ServerBuilder& builder);

    /// Stops, unless that has been done.
    ~ConnectionAcceptor();
    ConnectionAcceptor(const ConnectionAcceptor&) = delete;
    ConnectionAcceptor(ConnectionAcceptor&&) = delete;
    ConnectionAcceptor& operator=(const ConnectionAcceptor&) = delete;
    ConnectionAcceptor& operator=(ConnectionAcceptor&&) = delete;

    /// Listens at the addresses of the host. Before start(). Throws InitializationError where that
    /// cannot be.
    void listen(const std::string& host, const std::string& port);

    /// Starts the thread, once; the server runs. Throws FileDescriptorError and std::system_error
    /// where there is no descriptor or no thread for it.
    void start();

    /// Ends the thread and closes the ports; ahead of the server's shutdown. One thread at a time.
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
    LinuxCppUtil::OwnedFileDescriptor m_stop;  // an event that tells the thread to end
    bool m_isShort = false;                    // the thread's own
    std::thread m_thread;
};

}  // namespace Hox::Service
