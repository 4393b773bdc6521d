#include "hox/testing/fake_discovery.h"

#include <cxxopts.hpp>
#include <string>

#include "hox/service_discovery/fake/fake_service_discovery_client.h"

namespace Hox::Testing {

std::shared_ptr<Hox::Service::Discovery::IServiceDiscoveryClient> fakeDiscoveryClient() {
    return std::make_shared<Hox::Service::Discovery::FakeServiceDiscoveryClient>();
}

void prepareForPublication(Hox::Service::LumServiceCtx& ctx) {
    ctx.getOptions().add_options()("port", "",
                                   cxxopts::value<std::string>()->default_value("5000"));
    const auto client = fakeDiscoveryClient();
    client->start();
    ctx.setDiscoveryClient(client);
}

}  // namespace Hox::Testing
