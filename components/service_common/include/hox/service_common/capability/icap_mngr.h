#pragma once

#include <memory>
#include <mutex>

#include "hox/service_discovery/status.h"

namespace cxxopts {
class Options;
}

namespace Hox::Service {

class LumServiceCtx;

/// One capability of the service, driven by the frame.
///
/// The frame owns it from addCapability() on and destroys it on the main thread, after the gRPC
/// server has shut down and before the server object is destroyed. Each hook below except
/// onDiscoveryEvent() is called once, in the order of declaration; a hook is called for all
/// capabilities before the next hook is called for the first one. An exception from a hook ends the
/// process.
class ICapMngr {
public:
    /// Creates the capability's mutex.
    ICapMngr();
    virtual ~ICapMngr() = default;

    ICapMngr(const ICapMngr&) = delete;
    ICapMngr& operator=(const ICapMngr&) = delete;

    /// The number in the capability catalogue (CapabilityType). Callable from any thread.
    virtual int id() const = 0;

    /// Adds the capability's command-line options in a separate group. Main thread, no lock, before
    /// the command line is parsed.
    virtual void addOptions(cxxopts::Options& options);

    /// Reacts to the loss of the mDNS connection; the frame publishes again what was published.
    /// Discovery thread, no lock; must neither throw nor wait.
    virtual void onDiscoveryEvent(const Hox::Service::Discovery::Status& status);

    /// Reads the options, creates trees and builders, registers the gRPC services on the context's
    /// server builder. Main thread, the capability's mutex held, no server yet. Later hooks cannot
    /// register services.
    virtual void initCapability(LumServiceCtx& ctx);

    /// Work that needs the running server. Main thread, the capability's mutex held.
    virtual void serverStarted(LumServiceCtx& ctx);

    /// Starts serving; the proxy trees of all other capabilities exist at this point. Main thread,
    /// the capability's mutex held. The service reports ready once the last capability has
    /// returned.
    virtual void proxyObsTreesReady(LumServiceCtx& ctx);

    /// The capability's one big lock: the frame holds it around the three hooks above, and each
    /// thread of the capability holds it while it uses the capability's tree. Never null.
    const std::shared_ptr<std::mutex>& getMutex() const { return m_mutex; }

protected:
    std::shared_ptr<std::mutex> m_mutex;
};

}  // namespace Hox::Service
