#include "service_initializer/signal_block.h"

namespace Hox::Service {

SignalBlock::SignalBlock() : m_former() {
    const sigset_t blocked = signals();
    pthread_sigmask(SIG_BLOCK, &blocked, &m_former);
}

SignalBlock::~SignalBlock() {
    pthread_sigmask(SIG_SETMASK, &m_former, nullptr);
}

sigset_t SignalBlock::signals() {
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGINT);
    sigaddset(&both, SIGTERM);
    return both;
}

bool SignalBlock::hasPending() {
    sigset_t pending;
    return sigpending(&pending) == 0 &&
           (sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1);
}

void SignalBlock::forever() {
    const sigset_t blocked = signals();
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
}

}  // namespace Hox::Service
