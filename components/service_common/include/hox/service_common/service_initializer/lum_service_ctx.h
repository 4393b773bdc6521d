#pragma once

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
#include "hox/service_common/service_initializer/service_identity.h"

namespace cxxopts {
class Options;
class ParseResult;
}  // namespace cxxopts

namespace grpc {
class ServerBuilder;
}  // namespace grpc

namespace Hox::Service {

/// What a capability sees of the frame. It owns the capabilities, the options, the server builder
/// and the server, and outlives every call of a capability's hooks.
///
/// The setters and parseOptions() are for the frame. Everything is called on the main thread; after
/// start-up the getters may be called from any thread, as nothing changes any more.
class LumServiceCtx {
public:
    using CapabilityList = std::vector<std::pair<int, std::unique_ptr<ICapMngr>>>;
    using CapabilityLock = std::unique_ptr<std::unique_lock<std::mutex>>;

    /// The program name stands in the help text; the builder is the frame's.
    explicit LumServiceCtx(
        const std::string& programName,
        std::shared_ptr<Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder> proxyObsTreeBuilder = {});

    /// Shuts the server down, then destroys the capabilities, in the order of their list, and then
    /// the server, which their threads may still ask for calls.
    virtual ~LumServiceCtx();

    LumServiceCtx(const LumServiceCtx&) = delete;
    LumServiceCtx& operator=(const LumServiceCtx&) = delete;

    /// Appends the capability under its catalogue number. Nothing is ever removed.
    virtual void addCapability(std::unique_ptr<ICapMngr> capability);

    /// The capabilities with their catalogue numbers, in the order in which they were initialised.
    virtual const CapabilityList& getCapabilities() const;

    /// The option definitions, to which options may be added until the command line is parsed.
    cxxopts::Options& getOptions();

    /// Parses the command line and keeps the result. Stray positional arguments are ignored; throws
    /// what derives from cxxopts::exceptions::exception for an unknown or malformed option, and
    /// keeps a former result then.
    void parseOptions(int argc, const char* const* argv);

    /// How often the option stands on the command line: a default counts 0, and so does everything
    /// before the command line has been parsed and an option that nobody registered.
    std::size_t optionCount(const std::string& name) const;

    /// The value of a string option, else its default, else an empty text; an empty text also
    /// before the command line has been parsed. Throws what derives from
    /// cxxopts::exceptions::exception for an option that nobody registered, std::bad_cast for one
    /// that is not a string.
    std::string optionValue(const std::string& name) const;

    /// The configuration directory.
    std::string getConfigDir() const;

    /// Where the data of the capability of this name lies.
    CapabilityPaths getCapabilityPaths(const std::string& capabilityName) const;

    /// Who this service is.
    const ServiceIdentity& getIdentity() const { return m_identity; }
    /// Replaces the identity.
    void setIdentity(ServiceIdentity identity);

    /// Opens proxy trees, from serverStarted() on.
    const ProxyObsTreeHelper& getProxyObsTreeHelper() const { return m_proxyObsTreeHelper; }

    /// The slot of the frame's lock on the capability that it is calling now, null outside such a
    /// call. Code under the call that blocks lets go of the lock through it.
    CapabilityLock& getCapabilityLock() { return m_capabilityLock; }

    /// The builder on which a capability registers its gRPC services in initCapability(). Asserts
    /// that there is one.
    grpc::ServerBuilder& getServerBuilder();
    /// Replaces the builder and releases a former one. Adds a queue to it in which the network is
    /// read while no other thread does.
    void setServerBuilder(std::unique_ptr<grpc::ServerBuilder> serverBuilder);

    /// What stands in for a capability's thread, while that runs a handler, in reading from the
    /// network. Null until there is a server builder.
    const std::shared_ptr<Hox::ObserverTree::StandbyPoller>& getStandbyPoller() const {
        return m_standbyPoller;
    }

    /// The slot of the server, null until it has started. The reference is valid as long as the
    /// context.
    const std::unique_ptr<grpc::Server>& getGrpcServer() const { return m_grpcServer; }
    /// Fills the slot of the server. From then on the network is read, unless it is null or was not
    /// made by this context's builder.
    void setGrpcServer(std::unique_ptr<grpc::Server> grpcServer);

private:
    CapabilityLock m_capabilityLock;
    CapabilityList m_capabilities;
    std::unique_ptr<cxxopts::Options> m_options;
    std::unique_ptr<cxxopts::ParseResult> m_parseResult;
    ProxyObsTreeHelper m_proxyObsTreeHelper;
    ServiceIdentity m_identity;
    std::unique_ptr<grpc::ServerBuilder> m_serverBuilder;
    std::unique_ptr<grpc::Server> m_grpcServer;
    std::shared_ptr<Hox::ObserverTree::StandbyPoller> m_standbyPoller;
};

}  // namespace Hox::Service
