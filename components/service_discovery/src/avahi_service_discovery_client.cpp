#include "hox/service_discovery/avahi/avahi_service_discovery_client.h"

#include <avahi-client/client.h>
#include <avahi-common/error.h>
#include <spdlog/logger.h>

#include <chrono>
#include <csignal>
#include <system_error>
#include <utility>

#include "avahi/client_core.h"
#include "avahi_publisher.h"
#include "avahi_resolver.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery::Avahi {

namespace {

/// How long an end waits for the daemon's answers.
constexpr auto patience = std::chrono::seconds(1);

/// From the start of the event loop's thread to its first look at the daemon.
constexpr auto loopDelay = std::chrono::milliseconds(100);

void blockSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

}  // namespace

AvahiServiceDiscoveryClient::AvahiServiceDiscoveryClient()
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_core(std::make_shared<ClientCore>()),
      m_startMutex(std::make_unique<FairMutex>()),
      m_publisher(std::make_unique<AvahiServicePublisher>(m_core)),
      m_resolver(std::make_unique<AvahiServiceResolver>(m_core)) {
    connect();
}

AvahiServiceDiscoveryClient::~AvahiServiceDiscoveryClient() {
    stop(true);
}

bool AvahiServiceDiscoveryClient::start() {
    if (isStarted()) {
        return true;
    }
    const std::lock_guard<FairMutex> start(*m_startMutex);
    if (isStarted()) {
        return true;
    }
    if (isUnwanted()) {
        return false;
    }
    try {
        leaveLoop(Clock::now() + patience);
        if (!m_connection) {
            connect();
        }
        if (waitForDaemon()) {
            return true;
        }
        leaveLoop(Clock::now() + patience);
        throw ServiceDiscoveryError("Avahi: failed to start avahi", __FILE__, __LINE__);
    } catch (const ServiceDiscoveryError&) {
        if (isUnwanted()) {
            return false;
        }
        throw;
    }
}

bool AvahiServiceDiscoveryClient::stop() {
    return stop(false);
}

bool AvahiServiceDiscoveryClient::isStarted() const {
    return m_core->isStarted();
}

std::string AvahiServiceDiscoveryClient::hostName() {
    return ask(avahi_client_get_host_name);
}

std::string AvahiServiceDiscoveryClient::domainName() {
    return ask(avahi_client_get_domain_name);
}

std::string AvahiServiceDiscoveryClient::fullyQualifiedHostName() {
    return ask(avahi_client_get_host_name_fqdn);
}

void AvahiServiceDiscoveryClient::setCallback(const std::function<void(const Status&)>& callback) {
    if (!callback) {
        throw ServiceDiscoveryError("callback has no target, ie. empty", __FILE__, __LINE__);
    }
    const std::lock_guard<std::mutex> state(m_stateMutex);
    m_callback = callback;
}

IServiceResolver& AvahiServiceDiscoveryClient::resolver() {
    requireStarted();
    return *m_resolver;
}

IServicePublisher& AvahiServiceDiscoveryClient::publisher() {
    requireStarted();
    return *m_publisher;
}

void AvahiServiceDiscoveryClient::cancel() {
    bool connecting = false;
    {
        const std::lock_guard<std::mutex> state(m_stateMutex);
        m_cancelled = true;
        connecting = m_connecting;
    }
    m_stateChanged.notify_all();
    if (connecting) {
        cutConnection();
    }
}

void AvahiServiceDiscoveryClient::connect() {
    setConnection(std::make_shared<DaemonConnection>(
        m_core->avahiMutex(),
        [this](AvahiClientState state, AvahiClient* client) { handleCallback(state, client); }));
    try {
        if (!setConnecting(true)) {
            throw ServiceDiscoveryError("Avahi: failed to create client instance", __FILE__,
                                        __LINE__);
        }
        m_connection->connect();
    } catch (const ServiceDiscoveryError&) {
        setConnecting(false);
        setConnection(nullptr);
        throw;
    }
    setConnecting(false);
}

bool AvahiServiceDiscoveryClient::waitForDaemon() {
    try {
        m_thread = std::thread([this] { runLoop(*m_connection); });
    } catch (const std::system_error&) {
        return false;
    }
    std::unique_lock<std::mutex> state(m_stateMutex);
    m_stateChanged.wait(state, [&] {
        return m_core->running || m_core->failed || m_cancelled || m_waitingStops > 0;
    });
    m_core->started = m_core->running.load();
    return m_core->started;
}

void AvahiServiceDiscoveryClient::leaveLoop(Clock::time_point deadline) {
    if (!m_thread.joinable()) {
        return;
    }
    lockOrCut(m_core->avahiMutex(), deadline);
    m_connection->quit();
    m_core->avahiMutex().unlock();
    if (!waitForLoopEnd(deadline)) {
        cutConnection();
    }
    m_thread.join();
    setConnection(nullptr);
}

bool AvahiServiceDiscoveryClient::waitForLoopEnd(Clock::time_point deadline) {
    std::unique_lock<std::mutex> state(m_stateMutex);
    return m_stateChanged.wait_until(state, deadline, [&] { return m_core->failed.load(); });
}

bool AvahiServiceDiscoveryClient::stop(bool silent) {
    const auto deadline = Clock::now() + patience;
    {
        const std::lock_guard<std::mutex> state(m_stateMutex);
        ++m_waitingStops;
        m_silent = m_silent || silent;
    }
    m_stateChanged.notify_all();
    lockOrCut(*m_startMutex, deadline);
    const std::lock_guard<FairMutex> start(*m_startMutex, std::adopt_lock);
    {
        const std::lock_guard<std::mutex> state(m_stateMutex);
        --m_waitingStops;
    }
    const bool wasStarted = isStarted();
    try {
        leaveLoop(deadline);
        // Otherwise the event loop has told it: it may have lost the daemon meanwhile, also by our
        // cutting the connection.
        if (std::exchange(m_endedByUs, false)) {
            tellLoss();
        }
        return wasStarted;
    } catch (const ServiceDiscoveryError& error) {
        m_logger->log(Hox::Log::here(), spdlog::level::err, "Avahi: failed when stopping: {}",
                      error.what());
        throw;
    }
}

void AvahiServiceDiscoveryClient::runLoop(DaemonConnection& connection) {
    blockSignals();
    std::this_thread::sleep_for(loopDelay);
    {
        const std::lock_guard<FairMutex> avahi(m_core->avahiMutex());
        const bool quit = connection.loop();
        m_endedByUs = withdraw(!quit) && quit;
    }
    {
        const std::lock_guard<std::mutex> state(m_stateMutex);
        m_core->failed = true;
    }
    m_stateChanged.notify_all();
}

void AvahiServiceDiscoveryClient::handleCallback(int clientState, AvahiClient* client) {
    const auto debug = [this](const char* text) {
        m_logger->log(Hox::Log::here(), spdlog::level::debug, "{}", text);
    };
    switch (clientState) {
        case AVAHI_CLIENT_S_RUNNING: {
            debug("Avahi: server entered running state");
            if (takeHostName(client) && m_core->isStarted()) {
                // The daemon goes on telling the network the former name as the requests' host.
                unregisterAll(true);
            }
            {
                const std::lock_guard<std::mutex> state(m_stateMutex);
                m_core->running = true;
            }
            m_stateChanged.notify_all();
            break;
        }
        case AVAHI_CLIENT_S_COLLISION:
            debug("Avahi server entered collision state");
            unregisterAll(m_core->isStarted());
            break;
        case AVAHI_CLIENT_FAILURE:
            debug("Avahi: server disappeared, unregistering services");
            if (avahi_client_errno(client) == AVAHI_ERR_DISCONNECTED) {
                debug("Avahi: server disappeared, unregistering services");
            }
            withdraw(true);
            m_connection->quit();
            break;
        case AVAHI_CLIENT_CONNECTING:
            debug("Avahi waiting for daemon to appear");
            break;
        default:
            break;
    }
}

/// Whether the host has another name than before.
bool AvahiServiceDiscoveryClient::takeHostName(AvahiClient* client) {
    const char* name = avahi_client_get_host_name(client);
    if (name == nullptr) {
        return false;
    }
    return std::exchange(m_hostName, name) != name;
}

bool AvahiServiceDiscoveryClient::withdraw(bool tell) {
    bool wasStarted = false;
    {
        const std::lock_guard<std::mutex> state(m_stateMutex);
        m_core->running = false;
        wasStarted = m_core->started.exchange(false);
    }
    unregisterAll(tell && wasStarted);
    return wasStarted;
}

void AvahiServiceDiscoveryClient::unregisterAll(bool tell) {
    // Destroyed at the end, under no other mutex than Avahi's: they hold what the users gave them.
    const auto requests = m_core->requests().takeAll();
    for (const auto& [id, request] : requests) {
        if (auto* wrapper = request->wrapper()) {
            wrapper->release();
        }
    }
    if (tell) {
        tellLoss();
    }
}

void AvahiServiceDiscoveryClient::tellLoss() {
    std::function<void(const Status&)> callback;
    {
        const std::lock_guard<std::mutex> state(m_stateMutex);
        if (!m_silent) {
            callback = m_callback;
        }
    }
    if (callback) {
        callback(ClientLost);
    }
}

void AvahiServiceDiscoveryClient::setConnection(std::shared_ptr<DaemonConnection> connection) {
    // The former one is destroyed under the Avahi mutex, and not under the state mutex.
    const std::lock_guard<FairMutex> avahi(m_core->avahiMutex());
    m_core->setConnection(connection.get());
    {
        const std::lock_guard<std::mutex> state(m_stateMutex);
        m_connection.swap(connection);
        m_core->failed = false;
    }
    connection.reset();
}

/// Returns false if the connection is unwanted: a cancel cuts only what was connecting at the time.
bool AvahiServiceDiscoveryClient::setConnecting(bool connecting) {
    const std::lock_guard<std::mutex> state(m_stateMutex);
    m_connecting = connecting;
    return !m_cancelled && m_waitingStops == 0;
}

void AvahiServiceDiscoveryClient::lockOrCut(FairMutex& mutex, Clock::time_point deadline) {
    if (!mutex.tryLockUntil(deadline)) {
        cutConnection();
        mutex.lock();
    }
}

void AvahiServiceDiscoveryClient::cutConnection() {
    std::shared_ptr<DaemonConnection> connection;
    {
        const std::lock_guard<std::mutex> state(m_stateMutex);
        connection = m_connection;
    }
    if (connection) {
        connection->cut();
    }
}

bool AvahiServiceDiscoveryClient::isUnwanted() {
    const std::lock_guard<std::mutex> state(m_stateMutex);
    return m_cancelled || m_waitingStops > 0;
}

void AvahiServiceDiscoveryClient::requireStarted() const {
    if (!isStarted()) {
        throw ServiceDiscoveryError("client not connected", __FILE__, __LINE__);
    }
}

std::string AvahiServiceDiscoveryClient::ask(const char* (*question)(AvahiClient*)) {
    const std::lock_guard<FairMutex> avahi(m_core->avahiMutex());
    requireStarted();
    const auto* answer = question(m_core->connection()->client());
    if (answer == nullptr) {
        throw ServiceDiscoveryError("client not connected", __FILE__, __LINE__);
    }
    return answer;
}

}  // namespace Hox::Service::Discovery::Avahi
