#include "hox/service_common/service_initializer/run_service.h"

#include <grpc/grpc.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>

#include <clocale>
#include <cstdlib>
#include <utility>

#include "hox/service_common/service_initializer/lum_service_initializer.h"
#include "hox/service_common/service_initializer/service_initialize_assert.h"

namespace Hox::Service {

namespace {

void setUpProcess() {
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
}

}  // namespace

int runService(int argc, char** argv, const CapabilityFactory& makeCapabilities) {
    setUpProcess();
    const auto service = std::make_unique<LumServiceInitializer>(argc, argv);
    initAssertion(true);
    for (auto& capability : makeCapabilities()) {
        service->addCapability(std::move(capability));
    }
    if (service->initialize() != 0) {
        return 1;
    }
    service->serverStart();
    return 0;
}

}  // namespace Hox::Service
