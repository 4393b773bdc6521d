#include "log_commands.h"

#include <fnmatch.h>

#include <algorithm>
#include <chrono>

#include "connection.h"
#include "ctl_error.h"
#include "introspection.pb.h"
#include "log_tail.h"
#include "logger_name.h"
#include "output.pb.h"
#include "printable.h"
#include "table.h"

namespace Hox::Ctl {

namespace Api = Hox::Capability::Introspection;

namespace {

std::string introspectionPath(const std::string& method) {
    return "/Hox.Capability.Introspection.IntrospectionService/" + method;
}

bool matches(const std::string& pattern, const std::string& name) {
    return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

std::string levelText(Api::LogLevel level) {
    const auto& name = Api::LogLevel_Name(level);
    return name.empty() ? std::to_string(static_cast<int>(level)) : name;
}

/// The loggers that match, by short name.
Api::ListLoggersResp findLoggers(const Connection& connection, const std::string& pattern) {
    Api::ListLoggersResp all;
    connection.call(introspectionPath("listLoggers"), google::protobuf::Empty(), all);
    Api::ListLoggersResp found;
    for (const auto& logger : all.logger()) {
        if (matches(pattern, logger.name()) || matches(pattern, shortLoggerName(logger.name()))) {
            *found.add_logger() = logger;
        }
    }
    if (found.logger().empty()) {
        throw CtlError(ExitCode::Usage, "no logger matches \"" + pattern + "\"",
                       "halvoctl log ls lists all loggers");
    }
    std::sort(found.mutable_logger()->begin(), found.mutable_logger()->end(),
              [](const auto& one, const auto& other) {
                  return std::pair(shortLoggerName(one.name()), one.name()) <
                         std::pair(shortLoggerName(other.name()), other.name());
              });
    return found;
}

}  // namespace

std::vector<std::string> logLevelNames() {
    std::vector<std::string> names;
    for (int index = 0; index < Api::LogLevel_descriptor()->value_count(); ++index) {
        names.push_back(Api::LogLevel_descriptor()->value(index)->name());
    }
    return names;
}

ExitCode listLoggers(Session& session, const std::string& pattern) {
    const auto connection = session.connect();
    const auto found = findLoggers(*connection, pattern);
    if (session.isJson()) {
        session.print(found);
        return ExitCode::Done;
    }
    Table table({"LEVEL", "LOGGER"});
    for (const auto& logger : found.logger()) {
        table.add({levelText(logger.level()), shortLoggerName(logger.name())});
    }
    table.print(session.out(), session.painter());
    return ExitCode::Done;
}

ExitCode setLogLevel(Session& session, const std::string& pattern, const std::string& level) {
    Api::LogLevel wanted{};
    if (!Api::LogLevel_Parse(level, &wanted)) {
        throw CtlError(ExitCode::Usage, "\"" + level + "\" is no level");
    }
    const auto connection = session.connect();
    LoggerChangeList changes;
    const auto found = findLoggers(*connection, pattern);
    for (const auto& logger : found.logger()) {
        if (logger.level() == wanted) {
            continue;
        }
        Api::SetLogLevelReq request;
        request.set_name(logger.name());
        request.set_level(wanted);
        Api::SetLogLevelResp response;
        connection->call(introspectionPath("setLogLevel"), request, response);
        auto& change = *changes.add_loggers();
        change.set_name(logger.name());
        change.set_previous(levelText(logger.level()));
        change.set_current(level);
        if (!session.isJson()) {
            session.out() << printable(shortLoggerName(logger.name())) << ": " << change.previous()
                          << " -> " << level << '\n';
        }
    }
    if (session.isJson()) {
        session.print(changes);
    }
    return ExitCode::Done;
}

ExitCode tailLog(Session& session, const TailWords& words) {
    constexpr std::chrono::milliseconds pause(200);
    LogTail tail(words.path);
    auto lines = tail.last(words.count);
    const auto& interrupt = session.surroundings().interrupt;
    do {
        for (const auto& line : lines) {
            session.out() << printable(line) << '\n';
        }
        if (!words.isFollowing || !session.out().flush()) {
            return ExitCode::Done;
        }
        lines = tail.next();
    } while (!lines.empty() || !interrupt.waitFor(pause));
    return ExitCode::Interrupted;
}

}  // namespace Hox::Ctl
