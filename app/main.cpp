#include "hox/configuration/conf_cap_mngr.h"
#include "hox/introspection/introspection_cap_mngr.h"
#include "hox/service_common/service_initializer/run_service.h"
#include "hox/state_monitoring/state_monitor_cap_mngr.h"

int main(int argc, char** argv) {
    using namespace Hox::Capability;
    return Hox::Service::runService(
        argc, argv,
        Hox::Service::capabilities<Configuration::ConfCapMngr, Introspection::IntrospectionCapMngr,
                                   StateMonitoring::StateMonitorCapMngr>());
}
