#include "avahi/daemon_connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery::Avahi {

namespace {

/// A daemon that dies between its first answers lets an attempt fail, although the next one finds
/// the bus without a daemon and waits for one.
constexpr int connectAttempts = 3;

AvahiSimplePoll* newEventLoop() {
    auto* poll = avahi_simple_poll_new();
    if (poll == nullptr) {
        throw ServiceDiscoveryError("Avahi: failed to create client event-loop", __FILE__,
                                    __LINE__);
    }
    return poll;
}

[[noreturn]] void failToConnect() {
    throw ServiceDiscoveryError("Avahi: failed to create client instance", __FILE__, __LINE__);
}

}  // namespace

DaemonConnection::DaemonConnection(FairMutex& mutex, StateHandler stateHandler)
    : m_avahiMutex(mutex),
      m_stateHandler(std::move(stateHandler)),
      m_simplePoll(newEventLoop(), avahi_simple_poll_free),
      m_poll(*avahi_simple_poll_get(m_simplePoll.get()), *this),
      m_client(nullptr, avahi_client_free) {
    avahi_simple_poll_set_func(m_simplePoll.get(), pollOpen, &m_avahiMutex);
}

DaemonConnection::~DaemonConnection() {
    m_client.reset();
    forgetSocket();
}

void DaemonConnection::connect() {
    waitForBus();
    for (int rest = connectAttempts; !m_client && rest > 0; --rest) {
        forgetSocket();  // of the former attempt: only one can be cut
        m_client.reset(
            avahi_client_new(&m_poll, AVAHI_CLIENT_NO_FAIL, clientCallback, this, nullptr));
    }
    if (!m_client) {
        failToConnect();
    }
}

/// Until the bus has greeted the process, on a connection that cut() reaches. It does not reach
/// that of Avahi's client before the bus has greeted it.
void DaemonConnection::waitForBus() {
    sd_bus* opened = nullptr;
    const bool isOpen = sd_bus_open_system(&opened) >= 0;
    const std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)> bus(opened, sd_bus_close_unref);
    if (!isOpen) {
        failToConnect();
    }
    keepSocket(sd_bus_get_fd(bus.get()));
    const char* name = nullptr;
    const bool isGreeted = sd_bus_get_unique_name(bus.get(), &name) >= 0;
    forgetSocket();
    if (!isGreeted) {
        failToConnect();
    }
}

bool DaemonConnection::loop() {
    return avahi_simple_poll_loop(m_simplePoll.get()) > 0;
}

void DaemonConnection::quit() {
    avahi_simple_poll_quit(m_simplePoll.get());
}

void DaemonConnection::cut() {
    const std::lock_guard<std::mutex> lock(m_socketMutex);
    m_cut = true;
    if (m_busSocket >= 0) {
        shutdown(m_busSocket, SHUT_RDWR);
    }
}

void DaemonConnection::clientCallback(AvahiClient* client, AvahiClientState state,
                                      void* userdata) noexcept {
    HOX_ASSERT(client != nullptr);
    HOX_ASSERT(userdata != nullptr);
    auto& connection = *static_cast<DaemonConnection*>(userdata);
    const std::lock_guard<FairMutex> lock(connection.m_avahiMutex);
    connection.m_stateHandler(state, client);
}

int DaemonConnection::pollOpen(pollfd* ufds, unsigned int nfds, int timeout,
                               void* userdata) noexcept {
    HOX_ASSERT(ufds != nullptr);
    HOX_ASSERT(userdata != nullptr);
    auto& mutex = *static_cast<FairMutex*>(userdata);
    mutex.unlock();
    const auto result = ::poll(ufds, nfds, timeout);
    const auto error = errno;
    mutex.lock();
    errno = error;
    return result;
}

AvahiWatch* DaemonConnection::watchNew(const AvahiPoll* api, int fd, AvahiWatchEvent event,
                                       AvahiWatchCallback callback, void* userdata) noexcept {
    auto& connection = static_cast<const ObservedPoll*>(api)->connection;
    connection.keepSocket(fd);
    const auto* inner = avahi_simple_poll_get(connection.m_simplePoll.get());
    return inner->watch_new(inner, fd, event, callback, userdata);
}

void DaemonConnection::keepSocket(int fd) {
    const std::lock_guard<std::mutex> lock(m_socketMutex);
    if (m_busSocket >= 0) {
        return;
    }
    m_busSocket = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (m_cut) {
        shutdown(fd, SHUT_RDWR);
    }
}

void DaemonConnection::forgetSocket() {
    const std::lock_guard<std::mutex> lock(m_socketMutex);
    if (m_busSocket >= 0) {
        close(std::exchange(m_busSocket, -1));
    }
}

}  // namespace Hox::Service::Discovery::Avahi
