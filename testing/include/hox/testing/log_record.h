#pragma once

#include <spdlog/common.h>

#include <ostream>
#include <string>

namespace Hox::Testing {

/// A log call: the logger, the level, and the text without any pattern.
struct LogRecord {
    std::string logger;
    spdlog::level::level_enum level = spdlog::level::off;
    std::string text;
};

/// Equal in all parts.
bool operator==(const LogRecord& left, const LogRecord& right);

/// Prints "[level][logger] text", for the messages of failed tests.
std::ostream& operator<<(std::ostream& out, const LogRecord& record);

}  // namespace Hox::Testing
