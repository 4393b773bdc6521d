#include "log_level_command.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "clock_text.h"
#include "confirm_records.h"
#include "ctl_error.h"
#include "duration.h"
#include "logger_name.h"
#include "printable.h"
#include "report_table.h"
#include "revert_timer.h"

namespace Hox::Ctl {

namespace {

using Loggers = google::protobuf::RepeatedPtrField<LoggerChange>;

/// What is recorded of the logger, null if nothing is.
const LoggerChange* find(const Loggers& loggers, const std::string& name) {
    const auto found = std::find_if(loggers.begin(), loggers.end(),
                                    [&name](const auto& each) { return each.name() == name; });
    return found == loggers.end() ? nullptr : &*found;
}

std::vector<PendingConfirmation> pendingLevels(const Session& session,
                                               const Connection& connection) {
    auto all = pendingConfirmations(session.surroundings());
    all.erase(std::remove_if(all.begin(), all.end(),
                             [&connection](const auto& each) {
                                 return each.content.kind() != LOG ||
                                        each.content.endpoint() != connection.endpoint();
                             }),
              all.end());
    return all;
}

/// The record of the change, whose timer runs.
std::unique_ptr<ConfirmRecord> keepRecord(const Session& session, const Connection& connection,
                                          std::chrono::milliseconds time,
                                          const LoggerChangeList& changes) {
    auto record = ConfirmRecord::create(session.surroundings());
    Confirmation content;
    content.set_kind(LOG);
    content.set_endpoint(connection.endpoint());
    *content.mutable_reverts_at() = changes.loggers(0).back_at();
    *content.mutable_loggers() = changes.loggers();
    keepWithTimer(*record, content, session.surroundings(), time);
    return record;
}

/// The loggers are no longer in these records.
void dropFromOthers(const Session& session, const std::vector<PendingConfirmation>& pending,
                    const LoggerClient::Loggers& loggers) {
    for (const auto& each : pending) {
        const auto record =
            ConfirmRecord::open(session.surroundings(), each.id, session.options().timeout);
        if (!record) {
            continue;
        }
        auto content = record->content();
        auto& left = *content.mutable_loggers();
        for (const auto& logger : loggers.logger()) {
            left.erase(
                std::remove_if(left.begin(), left.end(),
                               [&logger](const auto& one) { return one.name() == logger.name(); }),
                left.end());
        }
        if (left.empty()) {
            record->remove();
            RevertTimer(each.id, each.folder).stop();
        } else if (left.size() != record->content().loggers_size()) {
            record->keep(content);
        }
    }
}

}  // namespace

ExitCode LogLevelCommand::run(Session& session) const {
    const auto level = parseLogLevel(m_options.level);
    const auto connection = session.connect();
    const LoggerClient client(*connection);
    const auto found = client.matching(m_options.pattern);
    const auto pending = pendingLevels(session, *connection);
    const auto changes = changesOf(session, found, pending);
    std::unique_ptr<ConfirmRecord> record;
    if (!m_options.time.empty() && !changes.loggers().empty()) {
        record = keepRecord(session, *connection, parseTimeLimit(m_options.time), changes);
    }
    for (const auto& change : changes.loggers()) {
        client.setLevel(change.name(), level);
    }
    dropFromOthers(session, pending, found);
    print(session, changes);
    return ExitCode::Done;
}

LoggerChangeList LogLevelCommand::changesOf(const Session& session,
                                            const LoggerClient::Loggers& loggers,
                                            const std::vector<PendingConfirmation>& pending) const {
    const bool isForNow = !m_options.time.empty();
    LoggerChangeList changes;
    for (const auto& logger : loggers.logger()) {
        const LoggerChange* earlier = nullptr;
        for (const auto& each : pending) {
            earlier = earlier == nullptr ? find(each.content.loggers(), logger.name()) : earlier;
        }
        // What somebody else has set meanwhile is what comes back.
        const auto now = logLevelText(logger.level());
        const bool isOurs = isForNow && earlier != nullptr && earlier->current() == now;
        if (now == m_options.level && !isOurs) {
            continue;
        }
        auto& change = *changes.add_loggers();
        change.set_name(logger.name());
        change.set_previous(isOurs ? earlier->previous() : now);
        change.set_current(m_options.level);
        if (isForNow) {
            *change.mutable_back_at() = timeStamp(session.now() + parseTimeLimit(m_options.time));
        }
    }
    return changes;
}

void LogLevelCommand::print(const Session& session, const LoggerChangeList& changes) const {
    if (session.isJson()) {
        session.print(changes);
        return;
    }
    for (const auto& change : changes.loggers()) {
        session.out() << printable(shortLoggerName(change.name())) << ": " << change.previous()
                      << " -> " << change.current();
        if (change.has_back_at()) {
            session.out() << ", back at " << timeText(timeOf(change.back_at()), session.now());
        }
        session.out() << '\n';
    }
}

void putLevelsBack(const LoggerClient& client, const Loggers& loggers) {
    const auto all = client.all();
    for (const auto& logger : all.logger()) {
        const auto* const change = find(loggers, logger.name());
        if (change != nullptr && change->current() == logLevelText(logger.level())) {
            client.setLevel(logger.name(), parseLogLevel(change->previous()));
        }
    }
}

}  // namespace Hox::Ctl
