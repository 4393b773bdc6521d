#include "avahi/wrappers/entry_group_wrapper.h"

#include <avahi-common/error.h>
#include <avahi-common/strlst.h>
#include <sys/time.h>

#include <cstdint>
#include <utility>

#include "avahi/wrappers/daemon_text.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery::Avahi {

namespace {

constexpr auto noFlags = AvahiPublishFlags(0);

using StringList = std::unique_ptr<AvahiStringList, void (*)(AvahiStringList*)>;

/// Null for no records: then there is no vendor mark either.
StringList txtList(const NetworkService& service) {
    StringList list(nullptr, avahi_string_list_free);
    const auto add = [&](const std::string& entry) {
        // Puts it at the front.
        list.reset(avahi_string_list_add_arbitrary(
            list.release(), reinterpret_cast<const std::uint8_t*>(entry.data()), entry.size()));
    };
    if (!service.txtRecords.empty()) {
        add("vendor=halvo");
    }
    for (const auto& [key, value] : service.txtRecords) {
        add(key + "=" + value);
    }
    return list;
}

Status statusOf(int groupState) {
    switch (groupState) {
        case AVAHI_ENTRY_GROUP_UNCOMMITED:
        case AVAHI_ENTRY_GROUP_REGISTERING:
            return Registering;
        case AVAHI_ENTRY_GROUP_ESTABLISHED:
            return Published;
        case AVAHI_ENTRY_GROUP_COLLISION:
            return Collision;
        default:
            return PublishFailure;
    }
}

}  // namespace

EntryGroupWrapper::EntryGroupWrapper(const DaemonConnection& connection,
                                     AvahiEntryGroupCallback callback, Refused refused,
                                     void* userdata, const NetworkService& service,
                                     spdlog::logger& logger)
    : m_poll(connection.poll()),
      m_refused(refused),
      m_userdata(userdata),
      m_group(avahi_entry_group_new(connection.client(), callback, userdata)) {
    if (!m_group) {
        throw ServiceDiscoveryError("failed to allocate entrygroup (OOM)", __FILE__, __LINE__);
    }
    const char* what = "add";
    auto error = addRecords(service);
    if (error == AVAHI_OK) {
        what = "commit";
        error = commit();
    }
    if (error != AVAHI_OK) {
        refuse(error, what, logger);
    }
}

EntryGroupWrapper::~EntryGroupWrapper() {
    cancelRefusal();
}

void EntryGroupWrapper::release() {
    cancelRefusal();
    if (m_group) {
        avahi_entry_group_reset(m_group.get());
        m_group.reset();
    }
}

Status EntryGroupWrapper::status() const {
    if (m_refusal) {
        return *m_refusal;
    }
    if (avahi_entry_group_is_empty(m_group.get()) > 0) {
        return Published;
    }
    return statusOf(avahi_entry_group_get_state(m_group.get()));
}

int EntryGroupWrapper::addRecords(const NetworkService& service) {
    const auto type = service.type.text();
    auto error = addService(service, type);
    for (auto subtype = service.subtypes.begin();
         error == AVAHI_OK && subtype != service.subtypes.end(); ++subtype) {
        error = addSubtype(service, type, *subtype);
    }
    return error;
}

int EntryGroupWrapper::addService(const NetworkService& service, const std::string& type) {
    // What the daemon would answer if it could be asked.
    if (!isDaemonText(service.name)) {
        return AVAHI_ERR_INVALID_SERVICE_NAME;
    }
    if (!isDaemonText(type)) {
        return AVAHI_ERR_INVALID_SERVICE_TYPE;
    }
    if (!isDaemonText(service.domain)) {
        return AVAHI_ERR_INVALID_DOMAIN_NAME;
    }
    const auto records = txtList(service);
    return avahi_entry_group_add_service_strlst(
        m_group.get(), service.interfaceIndex, AVAHI_PROTO_INET, noFlags, service.name.c_str(),
        type.c_str(), orNull(service.domain), nullptr, service.port, records.get());
}

int EntryGroupWrapper::addSubtype(const NetworkService& service, const std::string& type,
                                  const std::string& subtype) {
    if (!isDaemonText(subtype)) {
        return AVAHI_ERR_INVALID_SERVICE_SUBTYPE;
    }
    const auto subtypeText = "_" + subtype + "._sub." + type;
    return avahi_entry_group_add_service_subtype(m_group.get(), service.interfaceIndex,
                                                 AVAHI_PROTO_UNSPEC, noFlags, service.name.c_str(),
                                                 type.c_str(), nullptr, subtypeText.c_str());
}

int EntryGroupWrapper::commit() {
    const auto error = avahi_entry_group_is_empty(m_group.get()) != 0
                           ? AVAHI_ERR_FAILURE
                           : avahi_entry_group_commit(m_group.get());
    if (error == AVAHI_ERR_FAILURE) {
        throw ServiceDiscoveryError("failed to publish service", __FILE__, __LINE__);
    }
    return error;
}

void EntryGroupWrapper::refuse(int error, const char* what, spdlog::logger& logger) {
    m_refusal = error == AVAHI_ERR_COLLISION ? Collision : PublishFailure;
    if (m_refusal == PublishFailure) {
        logger.log(Hox::Log::here(), spdlog::level::err, "Avahi: failed to {} service: {}", what,
                   avahi_strerror(error));
    }
    const timeval atOnce = {};
    m_refusalEvent = m_poll->timeout_new(m_poll, &atOnce, tellRefusal, this);
    if (m_refusalEvent == nullptr) {
        throw ServiceDiscoveryError("failed to publish service", __FILE__, __LINE__);
    }
}

void EntryGroupWrapper::cancelRefusal() {
    if (m_refusalEvent != nullptr) {
        m_poll->timeout_free(std::exchange(m_refusalEvent, nullptr));
    }
}

void EntryGroupWrapper::tellRefusal(AvahiTimeout*, void* userdata) noexcept {
    auto& wrapper = *static_cast<EntryGroupWrapper*>(userdata);
    const auto status = *wrapper.m_refusal;
    // The wrapper is destroyed in this call if the user drops the handle.
    wrapper.m_refused(static_cast<std::weak_ptr<RequestContext>*>(wrapper.m_userdata), status);
}

}  // namespace Hox::Service::Discovery::Avahi
