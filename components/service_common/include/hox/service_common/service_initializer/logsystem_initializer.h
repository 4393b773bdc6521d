#pragma once

namespace Hox::Service {

/// Installs the log system of the process. Owns nothing: the log system outlives the object.
class LogsystemInitializer {
public:
    /// Installs the log system for standard output if any argument equals "--logstdout", at any
    /// position, even as the value of another option; otherwise the one for the rotating file
    /// "/var/log/halvo/<program>.log" and the journal. Default level info.
    ///
    /// For the start of the program, before other threads run. Throws spdlog::spdlog_ex if the log
    /// file cannot be opened; the log system is unchanged then.
    LogsystemInitializer(int argc, char** argv);
};

}  // namespace Hox::Service
