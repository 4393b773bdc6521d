#include "hox/observer_tree/grpc/steady_observer.h"

#include <spdlog/logger.h>

#include <algorithm>
#include <utility>

#include "grpc/steady_observation.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/observer_tree/change_set_conversion.h"

namespace Hox::ObserverTree {

namespace {

/// How long the thread waits for the channel before it looks whether it must end.
constexpr std::chrono::milliseconds step{200};

bool areEqual(const DataTreeValPtr& one, const DataTreeValPtr& other) {
    if (!one || !other) {
        return one == other;
    }
    const auto& packed = *one->toAny();
    const auto& otherPacked = *other->toAny();
    return packed.type_url() == otherPacked.type_url() && packed.value() == otherPacked.value();
}

/// The snapshot, or the first change of what was empty: all that there is.
std::map<std::string, DataTreeValPtr> contentOf(const ObsTreeObserveChangeSet& element) {
    std::map<std::string, DataTreeValPtr> content;
    for (const auto& [key, pairs] : fromWire(element)) {
        if (!pairs.empty() && pairs.back().current) {
            content.emplace(key, pairs.back().current);
        }
    }
    return content;
}

}  // namespace

SteadyObserver::SteadyObserver(std::shared_ptr<GrpcProxyObserverTree> tree,
                               std::shared_ptr<std::mutex> mutex, const std::string& address,
                               std::string keyPattern, Callback callback)
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_tree(std::move(tree)),
      m_mutex(std::move(mutex)),
      m_method(m_tree->observeMethod(address)),
      m_keyPattern(std::move(keyPattern)),
      m_callback(std::move(callback)),
      m_thread([this] { run(); }) {}

SteadyObserver::~SteadyObserver() {
    {
        const std::lock_guard<std::mutex> lock(m_stateMutex);
        m_isEnding = true;
        if (m_observation != nullptr) {
            m_observation->cancel();
        }
    }
    m_ends.notify_all();
    m_thread.join();
}

void SteadyObserver::run() {
    auto pause = minPause;
    while (!m_isEnding) {
        if (!m_tree->waitForConnected(std::chrono::system_clock::now() + step)) {
            continue;
        }
        pause = observeUntilEnd() ? minPause : std::min(2 * pause, maxPause);
        std::unique_lock<std::mutex> lock(m_stateMutex);
        m_ends.wait_for(lock, pause, [this] { return m_isEnding.load(); });
    }
}

/// Returns whether the service has told its content.
bool SteadyObserver::observeUntilEnd() {
    using Event = SteadyObservation::Event;
    const auto observation = begin();
    if (!observation) {
        return false;
    }
    for (auto event = observation->next(); event != Event::End; event = observation->next()) {
        const std::lock_guard<std::mutex> capabilityLock(*m_mutex);
        if (m_isEnding) {
            continue;
        }
        if (event == Event::Refusal) {
            onRefusal(*observation);
        } else if (event == Event::Change) {
            onElement(observation->element());
        } else {
            replaceContent(event == Event::Content ? contentOf(observation->element()) : Content());
        }
    }
    {
        const std::lock_guard<std::mutex> lock(m_stateMutex);
        m_observation = nullptr;
    }
    const auto& status = observation->status();
    logEnd(status.error_code(), status.error_message());
    return observation->hasContent();
}

/// Null at the end, and if the process's own server has been shut down.
std::unique_ptr<SteadyObservation> SteadyObserver::begin() {
    const auto passage = m_tree->passGate();
    if (m_tree->inProcess() && !passage.owns_lock()) {
        return nullptr;
    }
    const std::lock_guard<std::mutex> lock(m_stateMutex);
    if (m_isEnding) {
        return nullptr;
    }
    auto observation = std::make_unique<SteadyObservation>(*m_tree, m_method, m_keyPattern);
    m_observation = observation.get();
    return observation;
}

/// A malformed pattern stays one: the stream is left as it is. Anything else may pass.
void SteadyObserver::onRefusal(SteadyObservation& observation) {
    const auto& status = observation.element().observestatus();
    m_logger->log(Hox::Log::here(), spdlog::level::err, "{} can not be observed: {}", m_keyPattern,
                  status.errormessage());
    if (status.statuscode() != ProtoStatus::INVALID_ARGUMENT) {
        observation.cancel();
    }
}

/// The loss of a service is nothing special. Other ends are told at error level, but not again and
/// again.
void SteadyObserver::logEnd(int code, const std::string& text) {
    const bool isLoss = code == grpc::StatusCode::OK || code == grpc::StatusCode::CANCELLED ||
                        code == grpc::StatusCode::UNAVAILABLE;
    auto end = std::to_string(code) + " " + text;
    if (!m_isEnding && end != m_lastEnd) {
        m_logger->log(Hox::Log::here(), isLoss ? spdlog::level::debug : spdlog::level::err,
                      "The stream of {} has ended, it is observed anew: {}", m_keyPattern, end);
    }
    m_lastEnd = std::move(end);
}

void SteadyObserver::onElement(const ObsTreeObserveChangeSet& element) {
    for (const auto& [key, pairs] : fromWire(element)) {
        for (const auto& pair : pairs) {
            change(key, pair.current);
        }
    }
}

void SteadyObserver::replaceContent(const Content& content) {
    for (auto known = m_content.begin(); known != m_content.end();) {
        const auto& key = (known++)->first;  // the element is removed by the change
        if (content.count(key) == 0) {
            change(std::string(key), nullptr);
        }
    }
    for (const auto& [key, current] : content) {
        change(key, current);
    }
}

void SteadyObserver::change(const std::string& key, const DataTreeValPtr& current) {
    const auto known = m_content.find(key);
    const auto old = known == m_content.end() ? nullptr : known->second;
    if (areEqual(old, current)) {
        return;
    }
    if (current) {
        m_content.insert_or_assign(key, current);
    } else {
        m_content.erase(known);
    }
    m_callback(key, old, current);
}

}  // namespace Hox::ObserverTree
