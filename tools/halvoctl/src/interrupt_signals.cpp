#include "interrupt_signals.h"

#include <unistd.h>

#include <csignal>

#include "exit_code.h"

namespace Hox::Ctl {

namespace {

/// Ends the thread; the process uses it for nothing else.
constexpr int endSignal = SIGUSR2;

sigset_t handledSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, endSignal);
    return signals;
}

void watchSignals(Interrupt& interrupt) {
    const auto signals = handledSignals();
    for (;;) {
        int number = 0;
        if (sigwait(&signals, &number) != 0 || number == endSignal) {
            return;
        }
        if (interrupt.isRequested()) {
            ::_exit(static_cast<int>(ExitCode::Interrupted));
        }
        interrupt.request();
    }
}

}  // namespace

InterruptSignals::InterruptSignals(Interrupt& interrupt) {
    const auto signals = handledSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    m_thread = std::thread([&interrupt] { watchSignals(interrupt); });
}

InterruptSignals::~InterruptSignals() {
    pthread_kill(m_thread.native_handle(), endSignal);
    m_thread.join();
}

}  // namespace Hox::Ctl
