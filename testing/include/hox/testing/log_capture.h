#pragma once

#include <spdlog/common.h>

#include <memory>
#include <string>
#include <vector>

#include "hox/testing/log_record.h"

namespace Hox::Testing {

/// Records all log records during its lifetime.
///
/// The first capture installs its own log system, which stays: loggers created by it write only to
/// the captures that exist at the time. Each capture includes existing loggers and those created
/// later. Captures may be nested; they end in the reverse order.
///
/// Create and destroy captures while no other thread logs; log calls and the functions below may be
/// called from any thread.
class LogCapture {
public:
    /// Captures all loggers and sets each to the level; their previous level (for a new logger: the
    /// level requested by its creator) is restored at the end.
    explicit LogCapture(spdlog::level::level_enum level = spdlog::level::trace);

    /// The same for the one logger of that name. Other loggers keep their levels.
    explicit LogCapture(const std::string& loggerName,
                        spdlog::level::level_enum level = spdlog::level::trace);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    LogCapture(LogCapture&&) = delete;
    LogCapture& operator=(LogCapture&&) = delete;

    /// All records so far, in the order of the log calls.
    std::vector<LogRecord> records() const;

    /// The texts of all records, in order.
    std::vector<std::string> texts() const;

    /// The texts of the records at exactly this level, in order.
    std::vector<std::string> textsAt(spdlog::level::level_enum level) const;

    /// The texts of the records of one logger, in order.
    std::vector<std::string> textsOf(const std::string& loggerName) const;

    /// Whether a record has exactly this text.
    bool contains(const std::string& text) const;

    /// Whether exactly these texts occur in this order, with or without others in between.
    bool containsInOrder(const std::vector<std::string>& texts) const;

    /// Deletes the records so far.
    void clear();

private:
    class Hub;
    class Logsystem;
    struct Capture;

    LogCapture(const std::string* loggerName, spdlog::level::level_enum level);

    std::shared_ptr<Hub> m_hub;
    std::shared_ptr<Capture> m_capture;
};

}  // namespace Hox::Testing
