#include "hox/service_common/capability/lum_capabilities.h"

#include <array>

#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::Service {

namespace {

constexpr std::array<const char*, 32> names = {
    "streamrouter",
    "servicerouter",
    "log_control",
    "service_supervisor",
    "http_docroot",
    "restgw",
    "tuner",
    "sipsi",
    "rf_output",
    "ts_subscription",
    "ip_input",
    "ip_output",
    "http_file_upload",
    "sw_update",
    "state_monitoring_uservice",
    "state_monitoring_node",
    "state_monitoring_system",
    "rf_input",
    "configuration",
    "cam",
    "system_config",
    "time_controller",
    "dvb_manager",
    "eit",
    "introspection",
    "reserved",
    "epg",
    "ts_stats",
    "scrambler",
    "vsecure_client_handler",
    "stacking",
    "mediaplayer",
};

}  // namespace

std::string capabilityName(int id) {
    if (id < 0 || static_cast<std::size_t>(id) >= names.size()) {
        throw CppUtil::InvalidArgumentError("Invalid service type", __FILE__, __LINE__);
    }
    return names[static_cast<std::size_t>(id)];
}

}  // namespace Hox::Service
