#include "discovery/publications.h"

#include <algorithm>
#include <csignal>
#include <vector>

#include "discovery/daemon_wait_notice.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service {

namespace {

constexpr const char* lostText =
    "The mDNS daemon is lost, its records will be published again once it is back";
constexpr const char* renamedText =
    "The host name is taken or has changed, all records will be published again";

}  // namespace

using Discovery::NetworkService;
using Discovery::ServiceDiscoveryError;
using Discovery::Status;

Publications::Publications(std::shared_ptr<Discovery::IServiceDiscoveryClient> client)
    : m_logger(Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_client(std::move(client)),
      m_thread([this] { run(); }) {}

Publications::~Publications() {
    end();
}

std::pair<Status, Discovery::Handle> Publications::publish(const NetworkService& service) {
    Lock lock(m_mutex);
    const unsigned int id = ++m_lastId;
    Publication& publication = m_publications[id];
    publication.service = service;
    m_changed.notify_all();
    waitForOutcome(lock, publication);
    publication.isFirst = false;
    if (publication.state == State::Published) {
        return {Discovery::Published,
                Discovery::Handle(id, [all = weak_from_this()](const Discovery::Handle& handle) {
                    if (const auto publications = all.lock()) {
                        publications->withdraw(handle.value());
                    }
                })};
    }
    const auto status = publication.status;
    const auto error = publication.error;
    lock.unlock();
    withdraw(id);
    if (error) {
        std::rethrow_exception(error);
    }
    return {status, Discovery::Handle()};
}

void Publications::waitForOutcome(Lock& lock, const Publication& publication) {
    // The answer may arrive ahead of the daemon's handle, without which it cannot be withdrawn.
    const auto isDone = [&publication] {
        return publication.state == State::Final ||
               (publication.state == State::Published && publication.handle.isValid());
    };
    if (m_changed.wait_for(lock, DaemonWaitNotice::patience, isDone)) {
        return;
    }
    m_logger->log(Log::here(), spdlog::level::warn, DaemonWaitNotice::waitingText);
    m_changed.wait(lock, isDone);
    m_logger->log(Log::here(), spdlog::level::info, DaemonWaitNotice::appearedText);
}

void Publications::lost() {
    {
        const Lock lock(m_mutex);
        m_isLost = true;
        for (auto& [id, publication] : m_publications) {
            if (publication.state != State::Final) {
                want(publication);
            }
        }
    }
    m_changed.notify_all();
}

void Publications::end() {
    {
        const Lock lock(m_mutex);
        if (m_isEnding) {
            return;
        }
        m_isEnding = true;
    }
    m_changed.notify_all();
    m_client->cancel();
    m_client->setCallback([](const Status& /*status*/) {});
    try {
        // Also ends a call to a daemon that does not answer.
        m_client->stop();
    } catch (const ServiceDiscoveryError&) {
        m_logger->log(Log::here(), spdlog::level::debug, "The client was lost while it stopped");
    }
    m_thread.join();
}

void Publications::run() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    Lock lock(m_mutex);
    while (!m_isEnding) {
        tellProgress();
        if (hasWork()) {
            lock.unlock();
            connectAndAsk();
            lock.lock();
        } else {
            waitForChange(lock);
        }
        settleRefusals();
    }
}

bool Publications::hasWork() const {
    const auto now = Clock::now();
    for (const auto& [id, publication] : m_publications) {
        if (publication.state == State::Wanted && publication.due <= now) {
            return true;
        }
    }
    return m_isLost;
}

void Publications::waitForChange(Lock& lock) {
    auto next = Clock::time_point::max();
    for (const auto& [id, publication] : m_publications) {
        if (publication.state == State::Wanted || publication.state == State::Refused) {
            next = std::min(next, publication.due);
        }
    }
    if (next == Clock::time_point::max()) {
        m_changed.wait(lock);
    } else {
        m_changed.wait_until(lock, next);
    }
}

void Publications::connectAndAsk() {
    if (!connect()) {
        Lock lock(m_mutex);
        m_isLost = true;
        m_changed.wait_for(lock, firstDelay, [this] { return m_isEnding; });
        return;
    }
    for (const auto& question : takeQuestions()) {
        if (isStillAsked(question)) {
            ask(question);
        }
    }
}

/// None if the client was lost meanwhile: it has to be started first.
std::vector<Publications::Question> Publications::takeQuestions() {
    const Lock lock(m_mutex);
    const auto now = Clock::now();
    std::vector<Question> questions;
    if (m_isLost) {
        return questions;
    }
    for (auto& [id, publication] : m_publications) {
        if (publication.state == State::Wanted && publication.due <= now) {
            publication.state = State::Asked;
            questions.push_back({id, ++publication.attempt, publication.service});
        }
    }
    return questions;
}

/// Returns false if there is no connection to a daemon.
bool Publications::connect() {
    {
        const Lock lock(m_mutex);
        m_isLost = false;
    }
    try {
        return m_client->start();
    } catch (const ServiceDiscoveryError& error) {
        m_logger->log(Log::here(), spdlog::level::debug, "{}", error.what());
        return false;
    }
}

/// No longer after a loss or at the end.
bool Publications::isStillAsked(const Question& question) {
    const Lock lock(m_mutex);
    const Publication* publication = find(question);
    return !m_isEnding && publication != nullptr && publication->state == State::Asked;
}

void Publications::ask(const Question& question) {
    try {
        keep(question, m_client->publisher().publish(
                           question.service,
                           [this, question](const Status& status, const NetworkService& /*asked*/) {
                               answered(question, status, nullptr);
                           }));
    } catch (const ServiceDiscoveryError&) {
        answered(question, Discovery::PublishFailure, std::current_exception());
    }
}

/// Drops the former attempt's handle, or the new one if the publication is no longer wanted.
void Publications::keep(const Question& question, Discovery::Handle handle) {
    Discovery::Handle gone = std::move(handle);  // dropped under no lock
    {
        const Lock lock(m_mutex);
        if (Publication* publication = find(question)) {
            std::swap(publication->handle, gone);
        }
    }
    m_changed.notify_all();
}

void Publications::answered(const Question& question, Status status,
                            const std::exception_ptr& error) {
    {
        const Lock lock(m_mutex);
        Publication* publication = find(question);
        if (publication == nullptr ||
            (publication->state != State::Asked && publication->state != State::Published)) {
            return;
        }
        const bool isPublished = status == Discovery::Published;
        publication->state = isPublished ? State::Published : State::Refused;
        publication->delay = isPublished ? firstDelay : publication->delay;
        publication->status = status;
        publication->error = error;
        publication->due =
            Clock::now() + (status == Discovery::Collision ? Clock::duration::zero() : grace);
    }
    m_changed.notify_all();
}

/// Null if the publication is no longer wanted, or was asked for anew.
Publications::Publication* Publications::find(const Question& question) {
    const auto found = m_publications.find(question.id);
    return found != m_publications.end() && found->second.attempt == question.attempt
               ? &found->second
               : nullptr;
}

void Publications::settleRefusals() {
    const auto now = Clock::now();
    for (auto& [id, publication] : m_publications) {
        if (publication.state != State::Refused || publication.due > now) {
            continue;
        }
        if (publication.isFirst) {
            publication.state = State::Final;
            m_changed.notify_all();
        } else {
            tryLater(publication, now);
        }
    }
}

void Publications::tryLater(Publication& publication, Clock::time_point now) {
    if (publication.delay == firstDelay) {
        m_logger->log(Log::here(), spdlog::level::err,
                      "{} cannot be published, status {}: trying again", publication.service.name,
                      static_cast<int>(publication.status));
    }
    m_isRefusalTold = true;
    publication.state = State::Wanted;
    publication.due = now + publication.delay;
    publication.delay = std::min(2 * publication.delay, longestDelay);
}

void Publications::want(Publication& publication) {
    publication.state = State::Wanted;
    publication.due = Clock::now();
    publication.delay = firstDelay;
}

/// One record for a loss, however often it repeats, and one when everything is on the network
/// again.
void Publications::tellProgress() {
    if (m_isLost && !m_isLossTold) {
        m_isLossTold = true;
        m_logger->log(Log::here(), spdlog::level::warn, "{}",
                      m_client->isStarted() ? renamedText : lostText);
    }
    const bool isComplete =
        !m_isLost &&
        std::all_of(m_publications.begin(), m_publications.end(),
                    [](const auto& entry) { return entry.second.state == State::Published; });
    if ((m_isLossTold || m_isRefusalTold) && isComplete) {
        m_isLossTold = false;
        m_isRefusalTold = false;
        m_logger->log(Log::here(), spdlog::level::info, "All records are published again");
    }
}

void Publications::withdraw(unsigned int id) {
    Map::node_type gone;  // its handle is dropped under no lock
    {
        const Lock lock(m_mutex);
        gone = m_publications.extract(id);
    }
    m_changed.notify_all();
}

}  // namespace Hox::Service
