#include "logger_client.h"

#include <fnmatch.h>

#include <algorithm>

#include "ctl_error.h"
#include "logger_name.h"

namespace Hox::Ctl {

namespace Introspection = Hox::Capability::Introspection;

namespace {

std::string introspectionPath(const std::string& method) {
    return "/Hox.Capability.Introspection.IntrospectionService/" + method;
}

bool matches(const std::string& pattern, const std::string& name) {
    return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

}  // namespace

LoggerClient::Loggers LoggerClient::all() const {
    Loggers loggers;
    m_connection.call(introspectionPath("listLoggers"), google::protobuf::Empty(), loggers);
    return loggers;
}

LoggerClient::Loggers LoggerClient::matching(const std::string& pattern) const {
    Loggers found;
    const auto loggers = all();
    for (const auto& logger : loggers.logger()) {
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

void LoggerClient::setLevel(const std::string& name, Level level) const {
    Introspection::SetLogLevelReq request;
    request.set_name(name);
    request.set_level(level);
    Introspection::SetLogLevelResp response;
    m_connection.call(introspectionPath("setLogLevel"), request, response);
}

std::vector<std::string> logLevelNames() {
    std::vector<std::string> names;
    for (int index = 0; index < Introspection::LogLevel_descriptor()->value_count(); ++index) {
        names.push_back(Introspection::LogLevel_descriptor()->value(index)->name());
    }
    return names;
}

LoggerClient::Level parseLogLevel(const std::string& name) {
    LoggerClient::Level level{};
    if (!Introspection::LogLevel_Parse(name, &level)) {
        throw CtlError(ExitCode::Usage, "\"" + name + "\" is no level");
    }
    return level;
}

std::string logLevelText(LoggerClient::Level level) {
    const auto& name = Introspection::LogLevel_Name(level);
    return name.empty() ? std::to_string(static_cast<int>(level)) : name;
}

}  // namespace Hox::Ctl
