#include "terminal_ignored.h"

#include <csignal>

namespace Hox::Ctl {

TerminalIgnored::TerminalIgnored()
    : m_formerHangup(std::signal(SIGHUP, SIG_IGN)), m_formerStop(std::signal(SIGTSTP, SIG_IGN)) {}

TerminalIgnored::~TerminalIgnored() {
    std::signal(SIGHUP, m_formerHangup);
    std::signal(SIGTSTP, m_formerStop);
}

}  // namespace Hox::Ctl
