#include "hox/service_common/service_initializer/service_helper.h"

#include <net/if.h>

#include <cstdint>
#include <string>
#include <utility>

#include "discovery/publications.h"
#include "hox/cpputil/error/error.h"
#include "hox/cpputil/log/logger_name.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/service_common/capability/lum_capabilities.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "hox/service_common/service_initializer/service_kind.h"
#include "hox/service_common/service_initializer/service_visibility.h"
#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/service_discovery/error/service_discovery_publish_error.h"

namespace Hox::Service {

namespace {

using Discovery::ServiceDiscoveryError;
using Discovery::ServiceDiscoveryPublishError;

int interfaceIndex(const std::string& name) {
    const unsigned int index = if_nametoindex(name.c_str());
    if (index == 0) {
        throw ServiceDiscoveryError("invalid interface name", __FILE__, __LINE__);
    }
    return static_cast<int>(index);
}

Discovery::Handle publishOrThrow(Publications& publications,
                                 const Discovery::NetworkService& service) {
    auto [status, handle] = publications.publish(service);
    if (status != Discovery::Published) {
        throw ServiceDiscoveryPublishError("failed to publish capability", status, __FILE__,
                                           __LINE__);
    }
    return std::move(handle);
}

}  // namespace

ServiceHelper::ServiceHelper(LumServiceCtx& ctx) : m_ctx(ctx) {}

CppUtil::ResourceHandle<unsigned int> ServiceHelper::publishCapability(
    int id, int kind, int visibility, const std::string& serviceIface,
    const std::map<std::string, std::string>& txt, const std::string& interfaceName) {
    const ServiceIdentity identity = m_ctx.getIdentity();
    const std::string capability = capabilityName(id);

    Discovery::NetworkService service;
    service.name = capability + "_" + identity.id;
    service.port = static_cast<std::uint16_t>(std::stoul(m_ctx.optionValue("port")));
    service.txtRecords = txt;
    service.txtRecords.insert({"type", serviceKindName(kind)});
    service.txtRecords.insert({"visiblity", visibilityName(visibility)});
    service.txtRecords.insert({"capability", capability});
    service.txtRecords.insert({"service_iface", serviceIface});
    service.txtRecords.insert({"service_id", identity.id});
    service.type = Discovery::NetworkServiceType("capability", Discovery::TCP);
    service.subtypes = {capability};

    try {
        service.interfaceIndex = interfaceIndex(interfaceName);
        return publishOrThrow(m_ctx.getPublications(), service);
    } catch (const Hox::Error& error) {
        const auto name = Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
        Log::getLogsystem()->getLogger(name)->log(Log::here(), spdlog::level::err, "{}",
                                                  error.what());
        throw;
    }
}

}  // namespace Hox::Service
