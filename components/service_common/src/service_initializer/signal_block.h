#pragma once

#include <csignal>

namespace Hox::Service {

/// Blocks SIGINT and SIGTERM on the calling thread during its lifetime. Signals that arrive
/// meanwhile are handled when it is destroyed. Constructed and destroyed on one thread.
class SignalBlock {
public:
    SignalBlock();
    ~SignalBlock();

    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

    /// The two signals.
    static sigset_t signals();

    /// Whether one of them waits to be handled by the calling thread.
    static bool hasPending();

    /// Blocks both on the calling thread for the rest of the thread's life.
    static void forever();

private:
    sigset_t m_former;
};

}  // namespace Hox::Service
