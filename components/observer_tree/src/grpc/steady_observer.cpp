#include "hox/observer_tree/grpc/steady_observer.h"

#include <spdlog/logger.h>

#include <algorithm>
#include <utility>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"

namespace Hox::ObserverTree {

namespace {

/// How long the thread waits for the channel before it looks whether it must end.
constexpr std::chrono::milliseconds step{200};

/// From the answer to the probe until an observation without an element is one without content.
constexpr std::chrono::milliseconds grace{1000};

/// A pattern that no tree accepts: the refusal shows that the service has handled what came before.
constexpr const char* refusedPattern = "";

bool areEqual(const DataTreeValPtr& one, const DataTreeValPtr& other) {
    if (!one || !other) {
        return one == other;
    }
    const auto& packed = *one->toAny();
    const auto& otherPacked = *other->toAny();
    return packed.type_url() == otherPacked.type_url() && packed.value() == otherPacked.value();
}

}  // namespace

SteadyObserver::SteadyObserver(std::shared_ptr<GrpcProxyObserverTree> tree,
                               std::shared_ptr<std::mutex> mutex, std::string address,
                               std::string keyPattern, Callback callback)
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_tree(std::move(tree)),
      m_mutex(std::move(mutex)),
      m_address(std::move(address)),
      m_keyPattern(std::move(keyPattern)),
      m_callback(std::move(callback)),
      m_thread([this] { run(); }) {}

SteadyObserver::~SteadyObserver() {
    m_isEnding = true;
    { const std::lock_guard<std::mutex> lock(m_stateMutex); }
    m_stateChanged.notify_all();
    m_thread.join();
}

void SteadyObserver::run() {
    auto pause = minPause;
    while (!m_isEnding) {
        if (!m_tree->waitForConnected(std::chrono::system_clock::now() + step)) {
            continue;
        }
        const bool hasAnswered = observeUntilLoss();
        pause = hasAnswered ? minPause : std::min(2 * pause, maxPause);
        waitFor(pause, [] { return false; });
    }
}

/// Returns whether the service has answered. The handles are dropped here: not in a callback, and
/// without the capability's mutex, which a running callback holds.
bool SteadyObserver::observeUntilLoss() {
    {
        const std::lock_guard<std::mutex> lock(m_stateMutex);
        m_hasContent = m_isProbed = m_isLost = false;
    }
    const auto handle = observe(
        m_keyPattern,
        [this](const ChangeSetType& changes, const Status& status) { onElement(changes, status); });
    {
        const auto probe = observe(refusedPattern, [this](const auto& /*changes*/,
                                                          const auto& status) {
            setState(status.statusCode() == ProtoStatus::INVALID_ARGUMENT ? m_isProbed : m_isLost);
        });
        waitFor([this] { return m_isProbed || m_isLost; });
    }
    if (!waitFor(grace, [this] { return m_hasContent || m_isLost; }) && !m_isEnding) {
        const std::lock_guard<std::mutex> capabilityLock(*m_mutex);
        std::unique_lock<std::mutex> lock(m_stateMutex);
        if (!m_hasContent && !m_isLost) {
            m_hasContent = true;
            lock.unlock();
            replaceContent({});
        }
    }
    waitFor([this] { return m_isLost; });
    const std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_isProbed || m_hasContent;
}

SteadyObserver::Handle SteadyObserver::observe(const std::string& keyPattern,
                                               ObserverCallback callback) {
    ObserveReq request;
    request.set_key_pattern(keyPattern);
    return m_tree->observe<ObserveReq>(m_address, request, std::move(callback), 0);
}

void SteadyObserver::onElement(const ChangeSetType& changes, const Status& status) {
    if (m_isEnding) {
        return;
    }
    if (status.statusCode() == ProtoStatus::INVALID_ARGUMENT) {
        m_logger->log(Hox::Log::here(), spdlog::level::err, "{} can not be observed: {}",
                      m_keyPattern, status.errorMessage());
        setState(m_hasContent);
        return;
    }
    if (!status.isOk()) {
        setState(m_isLost);
        return;
    }
    bool isFirst = false;
    {
        const std::lock_guard<std::mutex> lock(m_stateMutex);
        isFirst = !std::exchange(m_hasContent, true);
    }
    m_stateChanged.notify_all();
    if (!isFirst) {
        for (const auto& [key, pairs] : changes) {
            for (const auto& pair : pairs) {
                change(key, pair.current);
            }
        }
        return;
    }
    // The snapshot, or the first change of what was empty: all that there is.
    Content content;
    for (const auto& [key, pairs] : changes) {
        if (!pairs.empty() && pairs.back().current) {
            content.emplace(key, pairs.back().current);
        }
    }
    replaceContent(content);
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

void SteadyObserver::setState(bool& flag) {
    {
        const std::lock_guard<std::mutex> lock(m_stateMutex);
        flag = true;
    }
    m_stateChanged.notify_all();
}

/// Returns whether the condition has become true; also returns at the end.
template <typename Condition>
bool SteadyObserver::waitFor(std::chrono::milliseconds limit, Condition condition) {
    std::unique_lock<std::mutex> lock(m_stateMutex);
    m_stateChanged.wait_for(lock, limit, [&] { return m_isEnding || condition(); });
    return condition();
}

template <typename Condition>
void SteadyObserver::waitFor(Condition condition) {
    std::unique_lock<std::mutex> lock(m_stateMutex);
    m_stateChanged.wait(lock, [&] { return m_isEnding || condition(); });
}

}  // namespace Hox::ObserverTree
