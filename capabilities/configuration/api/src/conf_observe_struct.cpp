#include "conf_observe_struct.h"

#include <chrono>
#include <utility>

#include "hox/configuration/storable_key.h"
#include "hox/cpputil/log/source_location.h"
#include "store_connection.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;

namespace {

/// From the loss of the store to the next observation.
constexpr std::chrono::milliseconds pause{500};

/// Whether the store has nothing of the slice.
bool isGone(const ChangeSetType& changes) {
    const auto stateId = changes.find(stateIdKey);
    return stateId == changes.end() || stateId->second.empty() || !stateId->second.front().current;
}

}  // namespace

ConfObserveStruct::ConfObserveStruct(Surroundings surroundings, Api::ObserveCapConfReq request,
                                     Callback callback)
    : m_surroundings(std::move(surroundings)),
      m_request(std::move(request)),
      m_callback(std::move(callback)),
      m_thread([this] { run(); }) {}

ConfObserveStruct::~ConfObserveStruct() {
    m_isEnding = true;
    { const std::lock_guard<std::mutex> lock(m_mutex); }
    m_changed.notify_all();
    m_thread.join();
}

bool ConfObserveStruct::isEnding() const {
    return m_isEnding || m_surroundings.isEnding();
}

void ConfObserveStruct::run() {
    for (bool isFirst = true; waitForStore(isFirst); isFirst = false) {
        const std::any handle = observe();
        waitForLoss();
    }
}

/// False at the end. The process does not end because the store stays away after a loss: only the
/// start depends on it.
bool ConfObserveStruct::waitForStore(bool isFirst) {
    StoreWait wait(m_surroundings.logger, m_surroundings.storeName, [this] { return isEnding(); });
    return StoreConnection::await(
        *m_surroundings.store, wait,
        isFirst ? StoreConnection::neededWithin : StoreConnection::noLimit);
}

std::any ConfObserveStruct::observe() {
    const auto slice = m_surroundings.slice();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_request.set_lastcapconfstateid(m_asksForContent ? "" : slice.stateId);
        m_slice = slice;
        m_hasAnswered = false;
        m_isLost = false;
    }
    return m_surroundings.store->observe<Api::ObserveCapConfReq>(
        StoreConnection::functionAddress, m_request,
        [this](const ChangeSetType& changes, const Status& status) { onChanges(changes, status); },
        0);
}

void ConfObserveStruct::onChanges(const ChangeSetType& changes, const Status& status) {
    if (m_isEnding) {
        return;
    }
    const bool isToBeRepeated = isOutdated(status);
    if (!isToBeRepeated) {
        m_callback(changes, status);
    }
    const bool isLost = status.statusCode() == ProtoStatus::CANCELLED;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!isLost) {  // otherwise the question remains
            m_asksForContent = isToBeRepeated && m_hasAnswered && isGone(changes);
        }
        m_hasAnswered = true;
        m_isLost = m_isLost || isToBeRepeated || isLost;
    }
    m_changed.notify_all();
}

/// What the store sends may say what the slice was before a change that has been stored meanwhile:
/// the owner gets no news of its own changes, and what an operator has done may have left the state
/// id as it was. So the slice is observed anew. If it was gone, the store has accepted the change
/// whatever it is based on, and may have less than this service: then the store's content decides.
bool ConfObserveStruct::isOutdated(const Status& status) {
    const auto storeCount = m_surroundings.slice().storeCount;
    const std::lock_guard<std::mutex> lock(m_mutex);
    return status.isOk() && storeCount != m_slice.storeCount;
}

void ConfObserveStruct::waitForLoss() {
    StoreWait wait(m_surroundings.logger, "the answer of " + m_surroundings.storeName,
                   [this] { return isEnding(); });
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_isLost && !isEnding() && m_surroundings.slice().refusals == m_slice.refusals) {
        if (!m_hasAnswered && wait.mustEnd()) {
            return;
        }
        m_changed.wait_for(lock, StoreWait::step);
    }
    m_changed.wait_for(lock, pause, [this] { return isEnding(); });
}

}  // namespace Hox::Capability::Configuration
