#pragma once

#include <spdlog/logger.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "avahi/request/iservice_request.h"
#include "hox/cpputil/log/logger_name.h"
#include "hox/service_discovery/handle.h"

namespace Hox::Service::Discovery::Avahi {

/// The registry of all requests of a client, by the numbers of their handles. Has a mutex of its
/// own, taken after the Avahi mutex where both are needed; no request is destroyed under it, as
/// this may run the user's destructors.
class RequestState {
public:
    using Requests = std::map<unsigned int, std::shared_ptr<IServiceRequest>>;
    /// Undoes a request; returns true if that failed.
    using Cleanup = std::function<bool(const std::shared_ptr<IServiceRequest>&)>;

    RequestState();

    /// Takes a request up.
    void add(unsigned int id, std::shared_ptr<IServiceRequest> request);

    /// The request of the handle, null if there is none.
    std::shared_ptr<IServiceRequest> find(const Handle& handle) const;

    /// Takes the handle's request out and returns it, after the function has undone it; a request
    /// that was removed already is no error. Throws ServiceDiscoveryError for an exception of the
    /// function, with the request still there.
    std::shared_ptr<IServiceRequest> remove(const Handle& handle, const Cleanup& cleanup);

    /// Takes all requests out.
    Requests takeAll();

private:
    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };

    std::shared_ptr<spdlog::logger> m_logger;
    mutable std::mutex m_mutex;  // held while a request is undone, which calls the daemon
    Requests m_requests;         // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Service::Discovery::Avahi
