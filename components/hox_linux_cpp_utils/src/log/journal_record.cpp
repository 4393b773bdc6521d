// Without this the journal's client adds the location of this file to each record.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include "hox/linutils/log/journal_record.h"

#include <syslog.h>
#include <systemd/sd-journal.h>

#include <cerrno>
#include <cstring>

namespace Hox::Log {

namespace {

int journalPriority(spdlog::level::level_enum level) {
    switch (level) {
        case spdlog::level::trace:
        case spdlog::level::debug:
            return LOG_DEBUG;
        case spdlog::level::warn:
            return LOG_WARNING;
        case spdlog::level::err:
            return LOG_ERR;
        case spdlog::level::critical:
            return LOG_CRIT;
        default:
            return LOG_INFO;
    }
}

// A record without a source location gets the text that the C library prints for a null pointer.
const char* orNull(const char* text) {
    return text != nullptr ? text : "(null)";
}

}  // namespace

void sendJournalRecord(const spdlog::details::log_msg& msg, std::string_view text) {
    const auto& source = msg.source;
    sd_journal_send("MESSAGE=%.*s", static_cast<int>(text.size()), text.data(), "PRIORITY=%d",
                    journalPriority(msg.level), "SYSLOG_IDENTIFIER=%.*s",
                    static_cast<int>(std::strlen(program_invocation_short_name)),
                    program_invocation_short_name, "CODE_FILE=%s", orNull(source.filename),
                    "CODE_LINE=%d", source.line, "CODE_FUNC=%s", orNull(source.funcname), nullptr);
}

}  // namespace Hox::Log
