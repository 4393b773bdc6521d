#include "health/service_names_plugin.h"

#include <grpcpp/impl/server_builder_option.h>
#include <grpcpp/impl/server_initializer.h>
#include <grpcpp/server_builder.h>

#include <utility>
#include <vector>

namespace Hox::Service {

namespace {

/// The option that adds a plugin to one builder.
class PluginOption final : public grpc::ServerBuilderOption {
public:
    explicit PluginOption(ServiceNamesPlugin::Receiver receiver)
        : m_receiver(std::move(receiver)) {}

    void UpdateArguments(grpc::ChannelArguments* /*arguments*/) override {}
    void UpdatePlugins(std::vector<std::unique_ptr<grpc::ServerBuilderPlugin>>* plugins) override {
        plugins->push_back(std::make_unique<ServiceNamesPlugin>(m_receiver));
    }

private:
    const ServiceNamesPlugin::Receiver m_receiver;
};

}  // namespace

void ServiceNamesPlugin::addTo(grpc::ServerBuilder& builder, Receiver receiver) {
    builder.SetOption(std::make_unique<PluginOption>(std::move(receiver)));
}

void ServiceNamesPlugin::Finish(grpc::ServerInitializer* initializer) {
    const auto* names = initializer->GetServiceList();
    m_receiver({names->begin(), names->end()});
}

}  // namespace Hox::Service
