#pragma once

#include <istream>

#include "interrupt.h"
#include "interrupt_signals.h"
#include "interruptible_input.h"
#include "surroundings.h"

namespace Hox::Ctl {

/// The surroundings of a command that has this process for itself. Construct it before any other
/// thread.
class ProcessSurroundings {
public:
    ProcessSurroundings();

    /// What the command gets.
    Surroundings& get() { return m_surroundings; }

private:
    Interrupt m_interrupt;
    InterruptSignals m_signals{m_interrupt};
    InterruptibleInput m_inputBytes;
    std::istream m_input{&m_inputBytes};
    Surroundings m_surroundings;
};

}  // namespace Hox::Ctl
