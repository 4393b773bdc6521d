#pragma once

#include <string>
#include <vector>

#include "connection.h"
#include "introspection.pb.h"

namespace Hox::Ctl {

/// The loggers of a service. Every function throws CtlError if its call fails.
class LoggerClient {
public:
    using Level = Hox::Capability::Introspection::LogLevel;
    using Loggers = Hox::Capability::Introspection::ListLoggersResp;

    /// The connection must outlive this object.
    explicit LoggerClient(const Connection& connection) : m_connection(connection) {}

    /// All loggers.
    Loggers all() const;

    /// The loggers whose short or whole name matches the pattern of a shell, by short name. Throws
    /// CtlError if there is none.
    Loggers matching(const std::string& pattern) const;

    /// Sets the level of the logger with this whole name.
    void setLevel(const std::string& name, Level level) const;

private:
    const Connection& m_connection;
};

/// The names of the levels of a logger, the lowest first.
std::vector<std::string> logLevelNames();

/// The level of a name. Throws CtlError for another text.
LoggerClient::Level parseLogLevel(const std::string& name);

/// The name of the level; of a level that is not known its number.
std::string logLevelText(LoggerClient::Level level);

}  // namespace Hox::Ctl
