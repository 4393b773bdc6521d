#include "ask_first.h"

#include "ctl_error.h"

namespace Hox::Ctl {

void askFirst(const Session& session, bool isSure, const std::string& what) {
    if (isSure) {
        return;
    }
    auto& surroundings = session.surroundings();
    if (!surroundings.isInTerminal) {
        throw CtlError(ExitCode::Usage, "not sent: there is no terminal to ask at",
                       "--yes does it without asking");
    }
    surroundings.err << what << " at " << session.options().endpoints.front() << "? [y/N] "
                     << std::flush;
    std::string answer;
    std::getline(surroundings.in, answer);
    if (answer != "y" && answer != "yes") {
        throw CtlError(ExitCode::Usage, "not sent");
    }
}

}  // namespace Hox::Ctl
