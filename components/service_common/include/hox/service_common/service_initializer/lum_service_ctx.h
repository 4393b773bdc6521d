#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "hox/observer_tree/grpc/standby_poller.h"
#include "hox/service_common/capability/icap_mngr.h"
#include "hox/service_common/service_initializer/capability_paths.h"
#include "hox/service_common/service_initializer/proxy_obs_tree_helper.h"
#include "hox/service_common/service_initializer/service_helper.h"
#include "hox/service_common/service_initializer/service_identity.h"
#include "hox/service_discovery/iservice_discovery_client.h"

namespace cxxopts {
class Options;
class ParseResult;
}  // namespace cxxopts

namespace grpc {
class ServerBuilder;
}  // namespace grpc

namespace Hox::Service {

class Publications;

/// The interface of the frame for a capability. It owns the capabilities, the options, the server
/// builder and the server, and outlives every call of a capability's hooks.
///
/// The setters and parseOptions() are for the frame. All functions are called on the main thread;
/// after start-up the getters may be called from any thread, because nothing changes any more.
class LumServiceCtx {
public:
    using CapabilityList = std::vector<std::pair<int, std::unique_ptr<ICapMngr>>>;
    using CapabilityLock = std::unique_ptr<std::unique_lock<std::mutex>>;

    /// The program name is used in the help text; the builder is the frame's.
    explicit LumServiceCtx(
        const std::string& programName,
        std::shared_ptr<Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder> proxyObsTreeBuilder = {});

    /// Stops the discovery client, which takes this service off the network. Shuts down the server,
    /// then destroys the capabilities, in the order of their list, and then the server: until then
    /// their threads may still request calls from it.
    virtual ~LumServiceCtx();

    LumServiceCtx(const LumServiceCtx&) = delete;
    LumServiceCtx& operator=(const LumServiceCtx&) = delete;

    /// Appends the capability under its catalogue number. Capabilities are never removed.
    virtual void addCapability(std::unique_ptr<ICapMngr> capability);

    /// The capabilities with their catalogue numbers, in the order in which they were initialised.
    virtual const CapabilityList& getCapabilities() const;

    /// The option definitions, to which options may be added until the command line is parsed.
    cxxopts::Options& getOptions();

    /// Parses the command line and keeps the result. Stray positional arguments are ignored; throws
    /// an exception derived from cxxopts::exceptions::exception for an unknown or malformed option,
    /// and keeps a previous result then.
    void parseOptions(int argc, const char* const* argv);

    /// How often the option is given on the command line. 0 for a default, before the command line
    /// has been parsed, and for an option that is not registered.
    std::size_t optionCount(const std::string& name) const;

    /// The value of a string option, otherwise its default, otherwise an empty text; also an empty
    /// text before the command line has been parsed. Throws an exception derived from
    /// cxxopts::exceptions::exception for an option that is not registered, std::bad_cast for an
    /// option that is not a string.
    std::string optionValue(const std::string& name) const;

    /// The configuration directory.
    std::string getConfigDir() const;

    /// The locations of the data of the capability of this name.
    CapabilityPaths getCapabilityPaths(const std::string& capabilityName) const;

    /// Whether the address leads to this service, judging by its text.
    bool isThisService(const std::string& address) const;

    /// Whether the end of the process has been requested: whoever waits gives up. On any thread; on
    /// the main thread also true while such a signal waits for the end of the start.
    bool isEnding() const;
    /// The end has been requested. For the frame, also in a signal handler.
    void setEnding() { m_isEnding = true; }

    /// The identity of this service.
    const ServiceIdentity& getIdentity() const { return m_identity; }
    /// Replaces the identity.
    void setIdentity(ServiceIdentity identity);

    /// Opens proxy trees, from serverStarted() on.
    const ProxyObsTreeHelper& getProxyObsTreeHelper() const { return m_proxyObsTreeHelper; }

    /// Makes the capabilities known on the network, in initCapability().
    ServiceHelper& getServiceHelper() { return m_serviceHelper; }

    /// The client of the discovery daemon, null until it is set.
    const std::shared_ptr<Discovery::IServiceDiscoveryClient>& getDiscoveryClient() const {
        return m_discoveryClient;
    }
    /// Sets the client, once. From then on what the capabilities publish is kept on the network.
    void setDiscoveryClient(std::shared_ptr<Discovery::IServiceDiscoveryClient> discoveryClient);

    /// Receives the events of the discovery client, on its thread. Passes a loss of the connection
    /// on to the capabilities that the context has at this moment.
    void discoveryCallback(const Discovery::Status& status);

    /// What the capabilities have published; for the frame. Asserts that there is a client.
    Publications& getPublications();

    /// The slot of the frame's lock on the capability that it is calling now, null outside of such
    /// a call. Code in the call that blocks releases the lock through it.
    CapabilityLock& getCapabilityLock() { return m_capabilityLock; }

    /// The builder on which a capability registers its gRPC services in initCapability(). Asserts
    /// that there is one.
    grpc::ServerBuilder& getServerBuilder();
    /// Replaces the builder and destroys a previous one. Adds a queue to it from which the network
    /// is read while no other thread does.
    void setServerBuilder(std::unique_ptr<grpc::ServerBuilder> serverBuilder);

    /// Reads from the network while a capability's thread runs a handler. Null until there is a
    /// server builder.
    const std::shared_ptr<Hox::ObserverTree::StandbyPoller>& getStandbyPoller() const {
        return m_standbyPoller;
    }

    /// The slot of the server, null until it has started. The reference is valid as long as the
    /// context.
    const std::unique_ptr<grpc::Server>& getGrpcServer() const { return m_grpcServer; }
    /// Fills the slot of the server. From then on the network is read, unless the server is null or
    /// was not built by this context's builder.
    void setGrpcServer(std::unique_ptr<grpc::Server> grpcServer);

private:
    std::atomic<bool> m_isEnding{false};
    CapabilityLock m_capabilityLock;
    std::shared_ptr<Discovery::IServiceDiscoveryClient> m_discoveryClient;
    std::shared_ptr<Publications> m_publications;
    std::mutex m_capabilitiesMutex;  // of changes of the list, and of readers on other threads
    CapabilityList m_capabilities;
    std::unique_ptr<cxxopts::Options> m_options;
    std::unique_ptr<cxxopts::ParseResult> m_parseResult;
    ServiceHelper m_serviceHelper;
    ProxyObsTreeHelper m_proxyObsTreeHelper;
    ServiceIdentity m_identity;
    std::unique_ptr<grpc::ServerBuilder> m_serverBuilder;
    std::unique_ptr<grpc::Server> m_grpcServer;
    std::shared_ptr<Hox::ObserverTree::StandbyPoller> m_standbyPoller;
};

}  // namespace Hox::Service
