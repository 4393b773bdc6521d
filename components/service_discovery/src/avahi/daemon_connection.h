#pragma once

#include <avahi-client/client.h>
#include <avahi-common/simple-watch.h>
#include <avahi-common/watch.h>

#include <functional>
#include <memory>
#include <mutex>

#include "avahi/fair_mutex.h"

struct pollfd;

namespace Hox::Service::Discovery::Avahi {

/// One Avahi client with the event loop that serves it, for one life: once the loop has been left,
/// or the daemon lost, a new object is needed.
class DaemonConnection {
public:
    /// Receives the states of the client, under the Avahi mutex. The first one is reported inside
    /// connect: use the client argument.
    using StateHandler = std::function<void(AvahiClientState, AvahiClient*)>;

    /// Makes the event loop. The mutex outlives the object. Throws ServiceDiscoveryError.
    DaemonConnection(FairMutex& mutex, StateHandler stateHandler);

    /// Disconnects: the daemon drops all that was asked for on this connection.
    ~DaemonConnection();

    DaemonConnection(const DaemonConnection&) = delete;
    DaemonConnection& operator=(const DaemonConnection&) = delete;

    /// Makes the client, also where there is no daemon yet; not under the Avahi mutex, as it waits
    /// for the bus and for a daemon that does not answer. Throws ServiceDiscoveryError where there
    /// is no system bus or the daemon does not fit.
    void connect();

    /// The client, from connect on.
    AvahiClient* client() const { return m_client.get(); }

    /// For time-outs on the event loop.
    const AvahiPoll* poll() const { return &m_poll; }

    /// Serves the client until quit, then returns true, or until polling fails. Under the Avahi
    /// mutex, which is open only while nothing happens.
    bool loop();

    /// Has the loop left. Under the Avahi mutex.
    void quit();

    /// Has every call to the daemon fail from now on, also one that is waiting for its answer: the
    /// connection is lost. Callable from any thread, with or without the Avahi mutex.
    void cut();

    /// Avahi's entry. Asserts client and userdata, which is the object.
    static void clientCallback(AvahiClient* client, AvahiClientState state,
                               void* userdata) noexcept;

    /// Waits for events with the Avahi mutex, its userdata, open. Asserts both pointers.
    static int pollOpen(pollfd* ufds, unsigned int nfds, int timeout, void* userdata) noexcept;

private:
    /// The functions of the event loop, with one of our own: watch_new, to get to know the bus's
    /// socket.
    struct ObservedPoll : AvahiPoll {
        ObservedPoll(const AvahiPoll& functions, DaemonConnection& observer)
            : AvahiPoll(functions), connection(observer) {
            watch_new = watchNew;
        }

        DaemonConnection& connection;
    };

    static AvahiWatch* watchNew(const AvahiPoll* api, int fd, AvahiWatchEvent event,
                                AvahiWatchCallback callback, void* userdata) noexcept;
    void waitForBus();
    void keepSocket(int fd);
    void forgetSocket();

    FairMutex& m_avahiMutex;
    StateHandler m_stateHandler;
    std::unique_ptr<AvahiSimplePoll, void (*)(AvahiSimplePoll*)> m_simplePoll;
    ObservedPoll m_poll;
    std::unique_ptr<AvahiClient, void (*)(AvahiClient*)> m_client;
    // A descriptor of our own for the socket of the bus: libdbus closes its own when it likes, and
    // the number may then belong to another file.
    int m_busSocket = -1;      // GUARDED_BY(m_socketMutex)
    bool m_cut = false;        // GUARDED_BY(m_socketMutex)
    std::mutex m_socketMutex;  // no other lock is taken under it
};

}  // namespace Hox::Service::Discovery::Avahi
