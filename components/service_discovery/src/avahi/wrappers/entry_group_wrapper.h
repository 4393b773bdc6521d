#pragma once

#include <avahi-client/publish.h>
#include <avahi-common/watch.h>
#include <spdlog/logger.h>

#include <memory>
#include <optional>
#include <string>

#include "avahi/daemon_connection.h"
#include "avahi/request/request_context.h"
#include "avahi/wrappers/avahi_wrapper.h"
#include "hox/service_discovery/networkservice.h"
#include "hox/service_discovery/status.h"

namespace Hox::Service::Discovery::Avahi {

/// Owns an entry group: one published service.
class EntryGroupWrapper : public AvahiWrapper {
public:
    /// Receives what the daemon has refused, on the event loop.
    using Refused = void (*)(std::weak_ptr<RequestContext>* context, Status status);

    /// Registers the service. If the daemon refuses it, the refusal is reported as an event like
    /// those of the daemon: Collision for a name that it knows already, otherwise PublishFailure
    /// after an error line with the daemon's text. Throws ServiceDiscoveryError if no entry group
    /// can be made or it cannot be committed.
    ///
    /// `userdata` is a std::weak_ptr<RequestContext>* that lives longer than the object.
    EntryGroupWrapper(const DaemonConnection& connection, AvahiEntryGroupCallback callback,
                      Refused refused, void* userdata, const NetworkService& service,
                      spdlog::logger& logger);
    ~EntryGroupWrapper() override;

    EntryGroupWrapper(const EntryGroupWrapper&) = delete;
    EntryGroupWrapper& operator=(const EntryGroupWrapper&) = delete;

    void release() override;

    /// How the publication is doing, asked from the daemon where it must be.
    Status status() const;

private:
    struct FreeGroup {
        void operator()(AvahiEntryGroup* group) const { avahi_entry_group_free(group); }
    };

    // These four return an error of Avahi's, AVAHI_OK for none.
    int addRecords(const NetworkService& service);
    int addService(const NetworkService& service, const std::string& type);
    int addSubtype(const NetworkService& service, const std::string& type,
                   const std::string& subtype);
    int commit();

    void refuse(int error, const char* what, spdlog::logger& logger);
    void cancelRefusal();
    static void tellRefusal(AvahiTimeout* timeout, void* userdata) noexcept;

    const AvahiPoll* m_poll;
    Refused m_refused;
    void* m_userdata;
    std::unique_ptr<AvahiEntryGroup, FreeGroup> m_group;
    std::optional<Status> m_refusal;
    AvahiTimeout* m_refusalEvent = nullptr;
};

}  // namespace Hox::Service::Discovery::Avahi
