#pragma once

namespace Hox::Service {

/// Installs the log system of the process. Holds nothing: the log system outlives the object.
class LogsystemInitializer {
public:
    /// Installs the log system for standard output where any argument equals "--logstdout",
    /// wherever it stands and whatever it belongs to; otherwise the one for the rotating file
    /// "/var/log/halvo/<program>.log" and the journal. Default level info.
    ///
    /// For the start of the program, before other threads run. Throws spdlog::spdlog_ex where the
    /// log file cannot be opened; the log system is unchanged then.
    LogsystemInitializer(int argc, char** argv);
};

}  // namespace Hox::Service
