#include "hox/service_common/service_initializer/lum_service_ctx.h"

#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <array>
#include <cxxopts.hpp>

#include "discovery/publications.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logger_name.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "service_initializer/own_address.h"
#include "service_initializer/signal_block.h"

namespace Hox::Service {

namespace {

constexpr const char* defaultConfigDir = "/var/lib/halvo";

}  // namespace

LumServiceCtx::LumServiceCtx(
    const std::string& programName,
    std::shared_ptr<Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder> proxyObsTreeBuilder)
    : m_options(std::make_unique<cxxopts::Options>(programName)),
      m_serviceHelper(*this),
      m_proxyObsTreeHelper(std::move(proxyObsTreeBuilder), m_grpcServer) {}

LumServiceCtx::~LumServiceCtx() {
    if (m_publications) {
        m_publications->end();  // its thread may be calling the capabilities
    }
    if (m_grpcServer) {
        m_proxyObsTreeHelper.inProcessGate()->close();
        m_grpcServer->Shutdown();
    }
    // Before the server object: a queue thread that still finds a finished call in its queue would
    // request the next one from a destroyed server.
    m_capabilities.clear();
    m_standbyPoller.reset();
}

void LumServiceCtx::addCapability(std::unique_ptr<ICapMngr> capability) {
    const int id = capability->id();
    const std::lock_guard<std::mutex> lock(m_capabilitiesMutex);
    m_capabilities.emplace_back(id, std::move(capability));
}

const LumServiceCtx::CapabilityList& LumServiceCtx::getCapabilities() const {
    return m_capabilities;
}

cxxopts::Options& LumServiceCtx::getOptions() {
    return *m_options;
}

void LumServiceCtx::parseOptions(int argc, const char* const* argv) {
    // The parser assumes a program name and reads past the end of an empty vector.
    static constexpr std::array<const char*, 1> noArguments = {""};
    const bool empty = argc < 1 || argv == nullptr;
    m_parseResult = std::make_unique<cxxopts::ParseResult>(
        m_options->parse(empty ? 1 : argc, empty ? noArguments.data() : argv));
}

std::size_t LumServiceCtx::optionCount(const std::string& name) const {
    return m_parseResult ? m_parseResult->count(name) : 0;
}

std::string LumServiceCtx::optionValue(const std::string& name) const {
    if (!m_parseResult) {
        return {};
    }
    const cxxopts::OptionValue& value = (*m_parseResult)[name];
    const bool hasValue = value.count() > 0 || value.has_default();
    return hasValue ? value.as<std::string>() : std::string();
}

std::string LumServiceCtx::getConfigDir() const {
    return optionCount("configdir") != 0 ? optionValue("configdir") : defaultConfigDir;
}

CapabilityPaths LumServiceCtx::getCapabilityPaths(const std::string& capabilityName) const {
    CapabilityPaths paths;
    if (optionCount("ccsaddr") > 0) {
        paths.ccsAddress = optionValue("ccsaddr");
    }
    if (optionCount("epgaddr") > 0) {
        paths.epgAddress = optionValue("epgaddr");
    }
    paths.confPath = getConfigDir() + "/" + capabilityName;
    paths.statePath = getConfigDir() + "/state/" + capabilityName;
    return paths;
}

bool LumServiceCtx::isThisService(const std::string& address) const {
    return isOwnAddress(address, optionValue("port")) ||
           (optionCount("extport") > 0 && isOwnAddress(address, optionValue("extport")));
}

bool LumServiceCtx::isEnding() const {
    return m_isEnding || SignalBlock::hasPending();
}

void LumServiceCtx::setIdentity(ServiceIdentity identity) {
    m_identity = std::move(identity);
}

void LumServiceCtx::setDiscoveryClient(
    std::shared_ptr<Discovery::IServiceDiscoveryClient> discoveryClient) {
    HOX_ASSERT(!m_discoveryClient.get());
    m_discoveryClient = std::move(discoveryClient);
    m_publications = std::make_shared<Publications>(m_discoveryClient);
}

void LumServiceCtx::discoveryCallback(const Discovery::Status& status) {
    if (status == Discovery::ClientLost && m_publications) {
        m_publications->lost();
    }
    std::vector<ICapMngr*> capabilities;
    {
        const std::lock_guard<std::mutex> lock(m_capabilitiesMutex);
        for (const auto& [id, capability] : m_capabilities) {
            capabilities.push_back(capability.get());
        }
    }
    if (capabilities.empty()) {
        return;
    }
    Log::getLogsystem()
        ->getLogger(Log::loggerName(__PRETTY_FUNCTION__, __FILE__))
        ->log(Log::here(), spdlog::level::info, "service discovery client event");
    if (status != Discovery::ClientLost) {
        return;
    }
    for (ICapMngr* capability : capabilities) {
        if (capability != nullptr) {
            capability->onDiscoveryEvent(status);
        }
    }
}

Publications& LumServiceCtx::getPublications() {
    HOX_ASSERT(m_publications.get());
    return *m_publications;
}

grpc::ServerBuilder& LumServiceCtx::getServerBuilder() {
    HOX_ASSERT(m_serverBuilder.get());
    return *m_serverBuilder;
}

void LumServiceCtx::setServerBuilder(std::unique_ptr<grpc::ServerBuilder> serverBuilder) {
    m_serverBuilder = std::move(serverBuilder);
    m_standbyPoller = std::make_shared<Hox::ObserverTree::StandbyPoller>(
        m_serverBuilder->AddCompletionQueue(true));
}

void LumServiceCtx::setGrpcServer(std::unique_ptr<grpc::Server> grpcServer) {
    m_grpcServer = std::move(grpcServer);
    if (m_grpcServer && m_standbyPoller) {
        m_standbyPoller->start();
    }
}

}  // namespace Hox::Service
