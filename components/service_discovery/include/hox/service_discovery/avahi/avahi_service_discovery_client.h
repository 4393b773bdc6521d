#pragma once

#include <spdlog/fwd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "hox/cpputil/log/logger_name.h"
#include "hox/service_discovery/iservice_discovery_client.h"

struct AvahiClient;

namespace Hox::Service::Discovery::Avahi {

class AvahiServicePublisher;
class AvahiServiceResolver;
class ClientCore;
class DaemonConnection;
class FairMutex;

/// Client of the machine's Avahi daemon, reached over the system bus.
///
/// One thread, the event loop, runs all callbacks, under the client's Avahi mutex. It runs from
/// start to the loss of the daemon or to stop.
class AvahiServiceDiscoveryClient : public IServiceDiscoveryClient {
public:
    /// Connects to the system bus; the daemon need not run. A daemon that is there but silent holds
    /// this up for as long as the bus lets it, up to a minute, and then fails it. Throws
    /// ServiceDiscoveryError where there is no bus, or a daemon of another version of the
    /// interface.
    AvahiServiceDiscoveryClient();

    /// Stops without a callback. Not from a callback, and while no other thread uses the client.
    ~AvahiServiceDiscoveryClient() override;

    AvahiServiceDiscoveryClient(const AvahiServiceDiscoveryClient&) = delete;
    AvahiServiceDiscoveryClient& operator=(const AvahiServiceDiscoveryClient&) = delete;

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

private:
    using Clock = std::chrono::steady_clock;

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };

    // Under the start mutex.
    void connect();
    bool waitForDaemon();
    void leaveLoop(Clock::time_point deadline);

    // On the event loop, under the Avahi mutex.
    void handleCallback(int clientState, AvahiClient* client);
    bool takeHostName(AvahiClient* client);
    bool withdraw(bool tell);
    void unregisterAll(bool tell);

    bool stop(bool silent);
    void runLoop(DaemonConnection& connection);
    bool waitForLoopEnd(Clock::time_point deadline);
    void tellLoss();
    void setConnection(std::shared_ptr<DaemonConnection> connection);
    bool setConnecting(bool connecting);
    void lockOrCut(FairMutex& mutex, Clock::time_point deadline);
    void cutConnection();
    bool isUnwanted();
    void requireStarted() const;
    std::string ask(const char* (*question)(AvahiClient*));

    std::shared_ptr<spdlog::logger> m_logger;
    std::shared_ptr<ClientCore> m_core;  // with the Avahi mutex, the requests and the flags

    // Lets start and stop in, one at a time. Order: start mutex, Avahi mutex, then either the mutex
    // of the requests or the state mutex, under which nothing is called.
    std::unique_ptr<FairMutex> m_startMutex;
    std::mutex m_stateMutex;  // the flags are set under it
    std::condition_variable m_stateChanged;
    std::function<void(const Status&)> m_callback;   // GUARDED_BY(m_stateMutex)
    std::shared_ptr<DaemonConnection> m_connection;  // set under both mutexes, read under either
    int m_waitingStops = 0;     // for the start mutex. GUARDED_BY(m_stateMutex)
    bool m_cancelled = false;   // GUARDED_BY(m_stateMutex)
    bool m_connecting = false;  // GUARDED_BY(m_stateMutex)
    bool m_silent = false;      // at the end. GUARDED_BY(m_stateMutex)
    std::string m_hostName;     // of the machine, as last told. Under the Avahi mutex
    std::thread m_thread;       // GUARDED_BY(m_startMutex)
    bool m_endedByUs = false;   // the loop was left while started; written by it, read once joined

    // Destroyed first.
    std::unique_ptr<AvahiServicePublisher> m_publisher;
    std::unique_ptr<AvahiServiceResolver> m_resolver;
};

}  // namespace Hox::Service::Discovery::Avahi
