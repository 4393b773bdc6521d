#pragma once

#include <thread>

#include "interrupt.h"

namespace Hox::Ctl {

/// Turns SIGINT and SIGTERM into an interrupt, on a thread of its own, as long as it exists.
///
/// Construct it before any other thread, which inherits that both are blocked. A second signal ends
/// the process at once with the status of an interrupted command.
class InterruptSignals {
public:
    /// The interrupt must outlive this object. Throws std::system_error if there can be no thread.
    explicit InterruptSignals(Interrupt& interrupt);
    ~InterruptSignals();
    InterruptSignals(const InterruptSignals&) = delete;
    InterruptSignals& operator=(const InterruptSignals&) = delete;

private:
    std::thread m_thread;
};

}  // namespace Hox::Ctl
