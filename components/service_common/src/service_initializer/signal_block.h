#pragma once

#include <csignal>

namespace Hox::Service {

/// Blocks SIGINT and SIGTERM on the calling thread during its lifetime. Signals that arrive
/// meanwhile are handled when it is destroyed. Constructed and destroyed on one thread; at most one
/// exists at a time.
class SignalBlock {
public:
    SignalBlock();
    ~SignalBlock();

    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

    /// The two signals.
    static sigset_t signals();

    /// One of them has reached another thread, which passes it on. In a signal handler; without an
    /// object it has no effect.
    static void note();

    /// Whether one of them waits for the end of the object, as far as the calling thread knows: on
    /// the object's thread always, on others after note().
    static bool hasPending();

    /// Blocks both on the calling thread for the rest of the thread's life.
    static void forever();

private:
    sigset_t m_former;
};

}  // namespace Hox::Service
