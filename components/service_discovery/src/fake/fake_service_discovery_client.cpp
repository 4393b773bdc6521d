#include "hox/service_discovery/fake/fake_service_discovery_client.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "hox/cpputil/error/not_implemented_error.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery {

namespace {

[[noreturn]] void refuse(const char* text) {
    throw ServiceDiscoveryError(text, __FILE__, __LINE__);
}

}  // namespace

/// Shared with the handles, which may live longer than the client.
struct FakeServiceDiscoveryClient::Network {
    std::mutex delivery;  // of one event; taken before the other
    mutable std::mutex mutex;
    std::condition_variable changed;
    Answer answer = [](const NetworkService&) { return Published; };
    std::function<void(const Status&)> callback;
    std::map<unsigned int, Request> requests;
    std::map<std::string, int> questions;
    unsigned int lastId = 0;
    int starts = 0;
    int failures = 0;
    bool hasDaemon = true;
    bool isStarted = false;
    bool isCancelled = false;
    bool losesNextStart = false;

    /// Delivers an event unless the handle was dropped.
    void deliver(unsigned int id, Status status) {
        const std::lock_guard<std::mutex> one(delivery);
        std::unique_lock<std::mutex> lock(mutex);
        const auto found = requests.find(id);
        if (found == requests.end()) {
            return;
        }
        found->second.status = status;
        const Request request = found->second;
        lock.unlock();
        request.callback(status, request.service);
    }
};

FakeServiceDiscoveryClient::FakeServiceDiscoveryClient()
    : m_network(std::make_shared<Network>()), m_events(std::make_unique<CppUtil::Timer>()) {}

FakeServiceDiscoveryClient::~FakeServiceDiscoveryClient() {
    end(false);
    m_events.reset();
}

void FakeServiceDiscoveryClient::answerWith(Answer answer) {
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    m_network->answer = std::move(answer);
}

void FakeServiceDiscoveryClient::loseDaemon() {
    {
        const std::lock_guard<std::mutex> lock(m_network->mutex);
        m_network->hasDaemon = false;
    }
    end(true);
}

void FakeServiceDiscoveryClient::bringDaemon() {
    {
        const std::lock_guard<std::mutex> lock(m_network->mutex);
        m_network->hasDaemon = true;
    }
    m_network->changed.notify_all();
}

void FakeServiceDiscoveryClient::failStarts(int count) {
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    m_network->failures = count;
}

void FakeServiceDiscoveryClient::loseAtNextStart() {
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    m_network->losesNextStart = true;
}

int FakeServiceDiscoveryClient::starts() const {
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    return m_network->starts;
}

void FakeServiceDiscoveryClient::report(const std::string& name, Status status) {
    std::vector<unsigned int> ids;
    {
        const std::lock_guard<std::mutex> lock(m_network->mutex);
        for (const auto& [id, request] : m_network->requests) {
            if (request.service.name == name) {
                ids.push_back(id);
            }
        }
    }
    for (const auto id : ids) {
        m_network->deliver(id, status);
    }
}

std::vector<NetworkService> FakeServiceDiscoveryClient::published() const {
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    std::vector<NetworkService> services;
    for (const auto& [id, request] : m_network->requests) {
        if (request.status == Published) {
            services.push_back(request.service);
        }
    }
    return services;
}

int FakeServiceDiscoveryClient::questions(const std::string& name) const {
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    const auto found = m_network->questions.find(name);
    return found == m_network->questions.end() ? 0 : found->second;
}

bool FakeServiceDiscoveryClient::start() {
    std::unique_lock<std::mutex> lock(m_network->mutex);
    ++m_network->starts;
    if (m_network->failures > 0) {
        --m_network->failures;
        refuse("no system bus");
    }
    m_network->changed.wait(lock,
                            [this] { return m_network->hasDaemon || m_network->isCancelled; });
    m_network->isStarted = m_network->hasDaemon && !m_network->isCancelled;
    const bool isLost = std::exchange(m_network->losesNextStart, false);
    const bool isStarted = m_network->isStarted;
    lock.unlock();
    if (isStarted && isLost) {
        loseDaemon();
    }
    return isStarted;
}

bool FakeServiceDiscoveryClient::stop() {
    const bool wasStarted = isStarted();
    end(wasStarted);
    return wasStarted;
}

bool FakeServiceDiscoveryClient::isStarted() const {
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    return m_network->isStarted;
}

std::string FakeServiceDiscoveryClient::hostName() {
    requireStarted();
    return "head-end";
}

std::string FakeServiceDiscoveryClient::domainName() {
    requireStarted();
    return "local";
}

std::string FakeServiceDiscoveryClient::fullyQualifiedHostName() {
    return hostName() + "." + domainName();
}

void FakeServiceDiscoveryClient::setCallback(const std::function<void(const Status&)>& callback) {
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    m_network->callback = callback;
}

IServiceResolver& FakeServiceDiscoveryClient::resolver() {
    throw CppUtil::NotImplementedError("nothing can be found without a daemon", __FILE__, __LINE__);
}

IServicePublisher& FakeServiceDiscoveryClient::publisher() {
    requireStarted();
    return *this;
}

void FakeServiceDiscoveryClient::cancel() {
    {
        const std::lock_guard<std::mutex> lock(m_network->mutex);
        m_network->isCancelled = true;
    }
    m_network->changed.notify_all();
}

FutureOutcome<NetworkService> FakeServiceDiscoveryClient::publish(
    const NetworkService& /*service*/) {
    throw CppUtil::NotImplementedError("publish with a callback", __FILE__, __LINE__);
}

Handle FakeServiceDiscoveryClient::publish(const NetworkService& service,
                                           const ServiceDiscoveryCallback& callback) {
    std::unique_lock<std::mutex> lock(m_network->mutex);
    const Answer answer = m_network->answer;
    ++m_network->questions[service.name];
    lock.unlock();
    const auto status = answer(service);
    lock.lock();
    if (!m_network->isStarted) {
        refuse("service discovery client not connected");
    }
    const unsigned int id = ++m_network->lastId;
    m_network->requests[id] = {service, callback};
    lock.unlock();
    if (status) {
        m_events->add(std::chrono::steady_clock::now(),
                      [network = m_network, id, status = *status](bool isEnd) {
                          if (!isEnd) {
                              network->deliver(id, status);
                          }
                      });
    }
    return Handle(id, [network = m_network](const Handle& handle) {
        const std::lock_guard<std::mutex> guard(network->mutex);
        network->requests.erase(handle.value());
    });
}

Status FakeServiceDiscoveryClient::status(const Handle& handle) {
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    const auto found = m_network->requests.find(handle.value());
    if (found == m_network->requests.end()) {
        refuse("invalid publish handle");
    }
    return found->second.status;
}

/// All requests are lost; a loss is reported. Waits for the event that is being delivered.
void FakeServiceDiscoveryClient::end(bool isLoss) {
    const std::lock_guard<std::mutex> one(m_network->delivery);
    std::function<void(const Status&)> callback;
    {
        const std::lock_guard<std::mutex> lock(m_network->mutex);
        m_network->isStarted = false;
        m_network->requests.clear();
        callback = m_network->callback;
    }
    if (isLoss && callback) {
        callback(ClientLost);
    }
}

void FakeServiceDiscoveryClient::requireStarted() const {
    if (!isStarted()) {
        refuse("client not connected");
    }
}

}  // namespace Hox::Service::Discovery
