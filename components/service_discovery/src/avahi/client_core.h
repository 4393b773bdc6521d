#pragma once

#include <spdlog/logger.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "avahi/daemon_connection.h"
#include "avahi/fair_mutex.h"
#include "avahi/request/iservice_request.h"
#include "avahi/request/request_state.h"
#include "hox/cpputil/log/logger_name.h"
#include "hox/service_discovery/handle.h"
#include "hox/service_discovery/networkservice.h"

namespace Hox::Service::Discovery::Avahi {

/// What a client shares with its publisher and resolver and with the handles of their requests,
/// which may outlive all three.
class ClientCore : public std::enable_shared_from_this<ClientCore> {
public:
    using WrapperMaker =
        std::function<std::unique_ptr<AvahiWrapper>(const DaemonConnection&, void* userdata)>;

    ClientCore();

    /// Guards the connection and all Avahi objects; user callbacks run under it. Taken before the
    /// mutex of the requests.
    FairMutex& avahiMutex() { return m_avahiMutex; }

    /// All requests of the client.
    RequestState& requests() { return m_requests; }

    /// Whether requests can be made. Takes no lock; stays as it is only under the Avahi mutex.
    bool isStarted() const { return started && running; }

    /// Sets the connection that requests are made on; null for none. Under the Avahi mutex.
    void setConnection(DaemonConnection* connection) { m_connection = connection; }

    /// The connection. Under the Avahi mutex; not null while the client is started.
    DaemonConnection* connection() const { return m_connection; }

    /// Makes the request's Avahi object and takes the request up, both in one hold of the Avahi
    /// mutex, so that the daemon cannot be lost in between. Throws ServiceDiscoveryError, with
    /// nothing changed, if the client is not started or the object cannot be made.
    Handle add(const std::shared_ptr<IServiceRequest>& request, const NetworkService& service,
               const WrapperMaker& makeWrapper);

    std::atomic<bool> running = false;  ///< the daemon is reachable
    std::atomic<bool> failed = false;   ///< the event loop has been left
    std::atomic<bool> started = false;  ///< start has returned true

private:
    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };

    void release(const Handle& handle);
    bool releaseWrapper(IServiceRequest& request) const;

    std::shared_ptr<spdlog::logger> m_logger;
    FairMutex m_avahiMutex;
    RequestState m_requests;
    std::atomic<std::uint64_t> m_nextId = 1;
    DaemonConnection* m_connection = nullptr;  // GUARDED_BY(m_avahiMutex)
};

}  // namespace Hox::Service::Discovery::Avahi
