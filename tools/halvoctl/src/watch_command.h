#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "exit_code.h"
#include "follower.h"
#include "ichange_sink.h"
#include "interrupt.h"
#include "session.h"

namespace Hox::Ctl {

/// Prints the changes of the keys that match a pattern, of one service or several, as they happen.
class WatchCommand {
public:
    /// What the user has asked for.
    struct Options {
        std::string pattern = "/**";  ///< The pattern of the keys.
        std::uint64_t count = 0;      ///< Ends after so many changes; 0: never.
        std::string time;             ///< Ends after this time; empty: never.
        bool hasNoSnapshot = false;   ///< Leaves out what is there at first.
        std::string service;          ///< The gRPC service whose tree is observed.
        bool isFull = false;          ///< Prints whole values.
        std::string exec;             ///< Runs this for each change.
        std::string record;           ///< Records the changes in this file.
    };

    explicit WatchCommand(Options options) : m_options(std::move(options)) {}

    /// Runs until the user ends it, or the options do. Throws CtlError.
    ExitCode run(Session& session);

private:
    void prepareSinks(const Session& session);
    void follow(const Session& session, const Connection& connection);
    void take(const Session& session, std::vector<Change> changes, const Connection& connection,
              const ServiceModel& model, const PackedValues& values);

    void flush();

    Options m_options;
    Interrupt m_end;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<IChangeSink>> m_sinks;  // GUARDED_BY(m_mutex)
    std::uint64_t m_taken = 0;                          // GUARDED_BY(m_mutex)
    std::exception_ptr m_error;                         // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Ctl
