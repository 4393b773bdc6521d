#include <grpc/grpc.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>

#include <clocale>
#include <cstdlib>
#include <memory>

#include "hox/configuration/conf_cap_mngr.h"
#include "hox/introspection/introspection_cap_mngr.h"
#include "hox/service_common/service_initializer/lum_service_initializer.h"
#include "hox/service_common/service_initializer/service_initialize_assert.h"
#include "hox/state_monitoring/state_monitor_cap_mngr.h"

int main(int argc, char** argv) {
    // Keys are UTF-8; the C library converts file names by this setting.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    // One set of descriptors for all threads: the reading thread serves all of them, at a cost that
    // does not grow with the connections. No other strategy lets one thread read for all.
    ::setenv("GRPC_POLL_STRATEGY", "epoll1", 1);
    // Never released: at the end the library would wait for its threads, for ever if one of them
    // could not be created.
    grpc_init();
    // Linking the plugin is not enough: nothing refers to it, so the linker drops it.
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();

    auto service = std::make_unique<Hox::Service::LumServiceInitializer>(argc, argv);
    Hox::Service::initAssertion(true);
    service->addCapability(std::make_unique<Hox::Capability::Configuration::ConfCapMngr>());
    service->addCapability(
        std::make_unique<Hox::Capability::Introspection::IntrospectionCapMngr>());
    service->addCapability(
        std::make_unique<Hox::Capability::StateMonitoring::StateMonitorCapMngr>());
    if (service->initialize() != 0) {
        return 1;
    }
    service->serverStart();
    return 0;
}
