#include "service_initializer/signal_block.h"

#include <atomic>

namespace Hox::Service {

namespace {

// For the signal handler.
std::atomic<bool> isBlocking{false};
std::atomic<bool> isNoted{false};

}  // namespace

SignalBlock::SignalBlock() : m_former() {
    isNoted = false;
    isBlocking = true;
    const sigset_t blocked = signals();
    pthread_sigmask(SIG_BLOCK, &blocked, &m_former);
}

SignalBlock::~SignalBlock() {
    isBlocking = false;
    pthread_sigmask(SIG_SETMASK, &m_former, nullptr);
}

sigset_t SignalBlock::signals() {
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGINT);
    sigaddset(&both, SIGTERM);
    return both;
}

void SignalBlock::note() {
    isNoted = isNoted || isBlocking;
}

bool SignalBlock::hasPending() {
    sigset_t pending;
    return isNoted || (sigpending(&pending) == 0 &&
                       (sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1));
}

void SignalBlock::forever() {
    const sigset_t blocked = signals();
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
}

}  // namespace Hox::Service
