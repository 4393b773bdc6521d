#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hox/cpputil/timer/timer.h"
#include "hox/service_discovery/iservice_discovery_client.h"

namespace Hox::Service::Discovery {

/// A discovery client without a daemon, for tests: the test says when there is one and how it
/// answers. Publishes only in the form with a callback; finds nothing.
///
/// All functions may be called from any thread. Callbacks run on a thread of the client.
class FakeServiceDiscoveryClient : public IServiceDiscoveryClient, public IServicePublisher {
public:
    /// What the daemon answers to a publication: a status, or nothing for no answer. It may throw
    /// ServiceDiscoveryError.
    using Answer = std::function<std::optional<Status>(const NetworkService&)>;

    /// There is a daemon, which publishes everything.
    FakeServiceDiscoveryClient();
    ~FakeServiceDiscoveryClient() override;
    FakeServiceDiscoveryClient(const FakeServiceDiscoveryClient&) = delete;
    FakeServiceDiscoveryClient& operator=(const FakeServiceDiscoveryClient&) = delete;

    /// Replaces the daemon's answer to later publications.
    void answerWith(Answer answer);

    /// The daemon is lost, and there is none until it appears. Returns after the callback.
    void loseDaemon();

    /// There is a daemon.
    void bringDaemon();

    /// Start throws this often from now on.
    void failStarts(int count);

    /// The daemon is lost as soon as the next start has found it.
    void loseAtNextStart();

    /// How often start was called.
    int starts() const;

    /// A later event of a publication that is on the network.
    void report(const std::string& name, Status status);

    /// The services with a living handle that have been answered with Published, in the order in
    /// which they were asked for.
    std::vector<NetworkService> published() const;

    /// How often a service of this name was asked for.
    int questions(const std::string& name) const;

    bool start() override;
    bool stop() override;
    bool isStarted() const override;
    std::string hostName() override;
    std::string domainName() override;
    std::string fullyQualifiedHostName() override;
    void setCallback(const std::function<void(const Status&)>& callback) override;
    IServiceResolver& resolver() override;
    IServicePublisher& publisher() override;
    void cancel() override;

    FutureOutcome<NetworkService> publish(const NetworkService& service) override;
    Handle publish(const NetworkService& service,
                   const ServiceDiscoveryCallback& callback) override;
    Status status(const Handle& handle) override;

private:
    struct Request {
        NetworkService service;
        ServiceDiscoveryCallback callback;
        Status status = Registering;
    };
    struct Network;

    void end(bool isLoss);
    void requireStarted() const;

    const std::shared_ptr<Network> m_network;
    std::unique_ptr<CppUtil::Timer> m_events;  // its thread runs the callbacks
};

}  // namespace Hox::Service::Discovery
