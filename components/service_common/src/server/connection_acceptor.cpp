#include "server/connection_acceptor.h"

#include <fcntl.h>
#include <grpcpp/security/server_credentials.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <utility>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "server/listening_sockets.h"

namespace Hox::Service {

using LinuxCppUtil::OwnedFileDescriptor;

namespace {

/// The interval at which the thread checks whether there are descriptors for waiting connections
/// again.
constexpr int shortageInterval = 50;  // milliseconds

constexpr int mostAtOnce = 64;

/// The process's limit of descriptors: the lowest number that a new descriptor cannot have.
rlim_t descriptorLimit() {
    rlimit limit{};
    return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

}  // namespace

ConnectionAcceptor::ConnectionAcceptor(grpc::ServerBuilder& builder)
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_server(builder.experimental().AddExternalConnectionAcceptor(
          grpc::ServerBuilder::experimental_type::ExternalConnectionType::FROM_FD,
          grpc::InsecureServerCredentials())) {}

ConnectionAcceptor::~ConnectionAcceptor() {
    stop();
}

void ConnectionAcceptor::listen(const std::string& host, const std::string& port) {
    auto sockets = listenAt(host, port);
    std::move(sockets.begin(), sockets.end(), std::back_inserter(m_listeners));
}

void ConnectionAcceptor::start() {
    m_stop = LinuxCppUtil::ownFileDescriptor(::eventfd(0, EFD_CLOEXEC));
    LinuxCppUtil::fileDescriptorNumber(m_stop);
    m_thread = std::thread([this] { run(); });
}

void ConnectionAcceptor::stop() {
    if (m_thread.joinable()) {
        ::eventfd_write(*m_stop, 1);
        m_thread.join();
    }
    m_listeners.clear();
}

void ConnectionAcceptor::run() {
    std::vector<pollfd> polled{{*m_stop, POLLIN, 0}};
    for (const auto& listener : m_listeners) {
        polled.push_back({*listener, POLLIN, 0});
    }
    while (waitForConnection(polled)) {
        for (const auto& entry : polled) {
            if (entry.revents != 0) {
                accept(entry.fd);
            }
        }
    }
}

/// Returns false if the thread must end.
bool ConnectionAcceptor::waitForConnection(std::vector<pollfd>& polled) const {
    // While nothing can be accepted, waiting connections must not wake the thread again and again.
    if (m_isShort && ::poll(polled.data(), 1, shortageInterval) > 0) {
        return false;
    }
    for (auto& entry : polled) {
        entry.revents = 0;
    }
    ::poll(polled.data(), polled.size(), -1);
    return polled.front().revents == 0;
}

/// Accepts the connections that wait at the port, as far as there are descriptors. No more than
/// some at once: the other port and the stop event wait meanwhile.
void ConnectionAcceptor::accept(int listener) {
    for (int round = 0; round < mostAtOnce; ++round) {
        if (!mayAccept(listener)) {
            noteShortage(true);
            return;
        }
        grpc::experimental::ExternalConnectionAcceptor::NewConnectionParameters connection;
        connection.listener_fd = listener;
        connection.fd = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (connection.fd >= 0) {
            m_server->HandleNewConnection(&connection);
        } else if (errno == EAGAIN) {
            noteShortage(false);  // not before: each connection that leaves lets one more in
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            noteShortage(true);  // of descriptors or memory, in this process or the system
            return;
        }
    }
}

/// A new descriptor has the lowest free number, so it shows how many are left.
bool ConnectionAcceptor::mayAccept(int listener) {
    const auto next = LinuxCppUtil::ownFileDescriptor(::fcntl(listener, F_DUPFD_CLOEXEC, 0));
    return next && static_cast<rlim_t>(*next) + sparedDescriptors < descriptorLimit();
}

void ConnectionAcceptor::noteShortage(bool isShort) {
    if (isShort == std::exchange(m_isShort, isShort)) {
        return;
    }
    if (isShort) {
        m_logger->log(Hox::Log::here(), spdlog::level::warn,
                      "Too few descriptors are left: new connections wait");
    } else {
        m_logger->log(Hox::Log::here(), spdlog::level::info, "New connections are accepted again");
    }
}

}  // namespace Hox::Service
