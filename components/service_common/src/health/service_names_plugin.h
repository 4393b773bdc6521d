#pragma once

#include <grpcpp/impl/server_builder_plugin.h>

#include <functional>
#include <memory>
#include <set>
#include <string>

namespace grpc {
class ServerBuilder;
}  // namespace grpc

namespace Hox::Service {

/// Collects the names of all services of a server when the server is built.
class ServiceNamesPlugin final : public grpc::ServerBuilderPlugin {
public:
    /// Gets the names, on the thread that builds the server.
    using Receiver = std::function<void(const std::set<std::string>&)>;

    explicit ServiceNamesPlugin(Receiver receiver) : m_receiver(std::move(receiver)) {}

    /// Adds such a plugin to the builder.
    static void addTo(grpc::ServerBuilder& builder, Receiver receiver);

    std::string name() override { return "service_names"; }
    void InitServer(grpc::ServerInitializer* /*initializer*/) override {}
    void Finish(grpc::ServerInitializer* initializer) override;
    void ChangeArguments(const std::string& /*name*/, void* /*value*/) override {}

private:
    const Receiver m_receiver;
};

}  // namespace Hox::Service
