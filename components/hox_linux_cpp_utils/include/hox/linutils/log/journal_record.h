#pragma once

#include <spdlog/details/log_msg.h>

#include <string_view>

namespace Hox::Log {

/// Sends a record to the systemd journal: the text as its message, the record's level as a syslog
/// priority, the program's name and the record's source location.
///
/// Callable from any thread; blocks until the journal's socket has taken the record. A journal that
/// cannot be reached is not reported.
void sendJournalRecord(const spdlog::details::log_msg& msg, std::string_view text);

}  // namespace Hox::Log
