#include "log_commands.h"

#include <chrono>

#include "connection.h"
#include "log_tail.h"
#include "logger_client.h"
#include "logger_name.h"
#include "printable.h"
#include "table.h"

namespace Hox::Ctl {

ExitCode listLoggers(Session& session, const std::string& pattern) {
    const auto connection = session.connect();
    const auto found = LoggerClient(*connection).matching(pattern);
    if (session.isJson()) {
        session.print(found);
        return ExitCode::Done;
    }
    Table table({"LEVEL", "LOGGER"});
    for (const auto& logger : found.logger()) {
        table.add({logLevelText(logger.level()), shortLoggerName(logger.name())});
    }
    table.print(session.out(), session.painter());
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
    } while (!interrupt.waitFor(lines.empty() ? pause : std::chrono::milliseconds(0)));
    return ExitCode::Interrupted;
}

}  // namespace Hox::Ctl
