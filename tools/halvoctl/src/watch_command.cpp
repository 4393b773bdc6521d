#include "watch_command.h"

#include <optional>
#include <thread>

#include "change_printer.h"
#include "change_recorder.h"
#include "change_runner.h"
#include "ctl_error.h"
#include "duration.h"
#include "report_table.h"
#include "request_guard.h"

namespace Hox::Ctl {

namespace {

/// Longer than any machine runs, and short enough for the arithmetic of clocks.
constexpr std::chrono::milliseconds never = std::chrono::hours(24 * 3650);

/// Threads that are ended and joined with this object.
class FollowingThreads {
public:
    explicit FollowingThreads(Interrupt& end) : m_end(end) {}
    ~FollowingThreads() {
        m_end.request();
        for (auto& thread : m_threads) {
            thread.join();
        }
    }
    FollowingThreads(const FollowingThreads&) = delete;
    FollowingThreads& operator=(const FollowingThreads&) = delete;

    template <typename Work>
    void add(Work work) {
        m_threads.emplace_back(std::move(work));
    }

private:
    Interrupt& m_end;
    std::vector<std::thread> m_threads;
};

}  // namespace

ExitCode WatchCommand::run(Session& session) {
    RequestGuard().checkPattern(m_options.pattern);
    const auto time = m_options.time.empty() ? never : parseDuration(m_options.time);
    prepareSinks(session);
    const auto userEnd = session.surroundings().interrupt.onRequest([this] { m_end.request(); });
    const auto connections = session.connectAll(m_end);
    {
        FollowingThreads threads(m_end);
        for (const auto& connection : connections) {
            threads.add([this, &session, &connection] { follow(session, *connection); });
        }
        m_end.waitFor(time);
    }
    if (m_error) {
        std::rethrow_exception(m_error);
    }
    session.checkInterrupt();
    return ExitCode::Done;
}

void WatchCommand::prepareSinks(const Session& session) {
    const ChangePrinter::Style style{m_options.isFull, session.options().endpoints.size() > 1};
    m_sinks.push_back(std::make_unique<ChangePrinter>(session, style));
    if (!m_options.record.empty()) {
        m_sinks.push_back(
            std::make_unique<ChangeRecorder>(m_options.record, session.options().endpoints.size()));
    }
    if (!m_options.exec.empty()) {
        m_sinks.push_back(std::make_unique<ChangeRunner>(
            m_options.exec, [&session](const std::string& text) { session.note(text); }));
    }
}

void WatchCommand::follow(const Session& session, const Connection& connection) {
    try {
        const auto model = session.modelOf(connection);
        const PackedValues values(*model);
        const auto& method = observeMethod(*model, m_options.service);
        Follower follower(
            {connection, *model, values, method, m_options.pattern, !m_options.hasNoSnapshot},
            m_end,
            {[&](std::vector<Change> changes) {
                 take(session, std::move(changes), connection, *model, values);
             },
             [&](const std::string& text) {
                 const std::lock_guard lock(m_mutex);
                 session.note(text);
             }});
        follower.run();
    } catch (const CtlError& error) {
        const std::lock_guard lock(m_mutex);
        if (!m_end.isRequested() && !m_error) {
            m_error = std::current_exception();
        }
        m_end.request();
    }
}

void WatchCommand::take(const Session& session, std::vector<Change> changes,
                        const Connection& connection, const ServiceModel& model,
                        const PackedValues& values) {
    const std::lock_guard lock(m_mutex);
    for (auto& change : changes) {
        if (m_end.isRequested()) {
            break;
        }
        *change.mutable_time() = timeStamp(session.now());
        change.set_endpoint(connection.endpoint());
        values.complete(change);
        for (const auto& sink : m_sinks) {
            sink->take(change, model, values);
        }
        if (!m_options.exec.empty()) {
            flush();  // before the output of the next command
        }
        if (++m_taken == m_options.count) {
            m_end.request();
        }
    }
    flush();
}

void WatchCommand::flush() {
    for (const auto& sink : m_sinks) {
        sink->flush();
    }
}

}  // namespace Hox::Ctl
