#include "hox/testing/in_process_service.h"

#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <chrono>
#include <cxxopts.hpp>
#include <mutex>
#include <utility>

#include "hox/testing/arguments.h"
#include "hox/testing/fake_discovery.h"

namespace Hox::Testing {

InProcessService::InProcessService(std::unique_ptr<Hox::Service::ICapMngr> capability,
                                   const std::vector<std::string>& arguments,
                                   const std::string& address)
    : m_ctx("program", std::make_shared<Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder>()) {
    prepareForPublication(m_ctx);
    auto& manager = *capability;
    m_ctx.addCapability(std::move(capability));
    manager.addOptions(m_ctx.getOptions());
    m_ctx.getOptions().add_options()("configdir", "", cxxopts::value<std::string>());
    auto allArguments = arguments;
    allArguments.push_back("--configdir=" + m_configDir.path().string());
    Arguments line(allArguments);
    m_ctx.parseOptions(line.argc(), line.argv());
    m_ctx.setIdentity({"head-1", "0", "mb"});
    m_ctx.setServerBuilder(std::make_unique<grpc::ServerBuilder>());
    if (!address.empty()) {
        m_ctx.getServerBuilder().AddListeningPort(address, grpc::InsecureServerCredentials());
    }
    const std::lock_guard<std::mutex> lock(*manager.getMutex());
    manager.initCapability(m_ctx);
    m_ctx.setGrpcServer(m_ctx.getServerBuilder().BuildAndStart());
    manager.serverStarted(m_ctx);
    manager.proxyObsTreesReady(m_ctx);
}

InProcessService::~InProcessService() {
    m_ctx.getProxyObsTreeHelper().inProcessGate()->close();
    m_ctx.getGrpcServer()->Shutdown(std::chrono::system_clock::now());
}

std::shared_ptr<grpc::Channel> InProcessService::channel() const {
    return m_ctx.getGrpcServer()->InProcessChannel(grpc::ChannelArguments());
}

}  // namespace Hox::Testing
