#include "slice_observers.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "conf_keys.h"
#include "hox/cpputil/assertion/assertion.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::Status;

namespace {

/// Each check takes the capability's mutex; between two checks its thread can handle events.
constexpr std::chrono::milliseconds lookInterval{100};
// The first look may come at once, as it is there for an earlier newcomer.
constexpr int looksOfPatience = SliceObservers::patience / lookInterval + 1;

}  // namespace

SliceObservers::SliceObservers(std::shared_ptr<std::mutex> capabilityMutex, Greeting greeting)
    : m_capabilityMutex(std::move(capabilityMutex)), m_greeting(std::move(greeting)) {}

SliceObservers::~SliceObservers() {
    const std::lock_guard<std::mutex> lock(*m_capabilityMutex);
    m_newcomers.clear();  // for a look that comes now: it must add nothing to the timer any more
}

void SliceObservers::arrive(const Api::ObserveCapConfReq& request, const Callback& callback) {
    const std::string id = uniqueConfId(request.confid());
    const Observer observer{&callback, callback};
    if (m_observeCbMap.count(id) == 0) {
        admit(id, observer, request);
        return;
    }
    m_newcomers[id].push_back({observer, request, looksOfPatience});
    startLooking();
}

void SliceObservers::leave(const Api::ObserveCapConfReq& request, const Callback& callback) {
    const std::string uniqueConfId = Configuration::uniqueConfId(request.confid());
    if (forgetNewcomer(uniqueConfId, callback)) {
        return;
    }
    HOX_ASSERT(m_observeCbMap.find(uniqueConfId) != m_observeCbMap.end());
    const auto observer = m_observeCbMap.find(uniqueConfId);
    if (observer != m_observeCbMap.end() && observer->second.identity == &callback) {
        m_observeCbMap.erase(observer);
        admitNext(uniqueConfId);
    }
}

void SliceObservers::tell(const std::string& uniqueConfId, const ChangeSetType& changes) const {
    const auto observer = m_observeCbMap.find(uniqueConfId);
    if (observer != m_observeCbMap.end()) {
        observer->second.callback(changes, Status());
    }
}

void SliceObservers::admit(const std::string& uniqueConfId, const Observer& observer,
                           const Api::ObserveCapConfReq& request) {
    HOX_ASSERT(m_observeCbMap.find(uniqueConfId) == m_observeCbMap.end());
    m_observeCbMap.insert_or_assign(uniqueConfId, observer);
    m_greeting(request, observer.callback);
}

void SliceObservers::admitNext(const std::string& uniqueConfId) {
    const auto newcomers = m_newcomers.find(uniqueConfId);
    if (newcomers == m_newcomers.end()) {
        return;
    }
    const Newcomer next = std::move(newcomers->second.front());
    newcomers->second.pop_front();
    if (newcomers->second.empty()) {
        m_newcomers.erase(newcomers);
    }
    admit(uniqueConfId, next.observer, next.request);
}

bool SliceObservers::forgetNewcomer(const std::string& uniqueConfId, const Callback& callback) {
    const auto newcomers = m_newcomers.find(uniqueConfId);
    if (newcomers == m_newcomers.end()) {
        return false;
    }
    auto& queue = newcomers->second;
    const auto newcomer = std::find_if(queue.begin(), queue.end(), [&callback](const auto& entry) {
        return entry.observer.identity == &callback;
    });
    if (newcomer == queue.end()) {
        return false;
    }
    queue.erase(newcomer);
    if (queue.empty()) {
        m_newcomers.erase(newcomers);
    }
    return true;
}

void SliceObservers::startLooking() {
    if (!std::exchange(m_isLooking, true)) {
        m_timer.add(std::chrono::steady_clock::now() + lookInterval, [this](bool isGoingAway) {
            if (!isGoingAway) {
                look();
            }
        });
    }
}

void SliceObservers::look() {
    const std::lock_guard<std::mutex> lock(*m_capabilityMutex);
    m_isLooking = false;
    std::vector<std::string> outOfPatience;
    for (auto& [id, queue] : m_newcomers) {
        for (auto& newcomer : queue) {
            --newcomer.looksLeft;
        }
        if (queue.front().looksLeft <= 0) {
            outOfPatience.push_back(id);
        }
    }
    for (const auto& id : outOfPatience) {
        admitNext(id);
    }
    if (!m_newcomers.empty()) {
        startLooking();
    }
}

}  // namespace Hox::Capability::Configuration
