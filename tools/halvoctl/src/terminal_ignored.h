#pragma once

namespace Hox::Ctl {

/// As long as it exists, neither the loss of the terminal ends this process and those that it
/// starts, nor does Ctrl-Z stop them.
class TerminalIgnored {
public:
    TerminalIgnored();
    ~TerminalIgnored();
    TerminalIgnored(const TerminalIgnored&) = delete;
    TerminalIgnored& operator=(const TerminalIgnored&) = delete;

private:
    void (*m_formerHangup)(int);
    void (*m_formerStop)(int);
};

}  // namespace Hox::Ctl
