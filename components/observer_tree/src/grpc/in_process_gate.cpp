#include "hox/observer_tree/grpc/in_process_gate.h"

namespace Hox::ObserverTree {

std::shared_lock<std::shared_mutex> InProcessGate::pass() {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    if (m_isClosed) {
        lock.unlock();
    }
    return lock;
}

void InProcessGate::close() {
    const std::unique_lock<std::shared_mutex> lock(m_mutex);
    m_isClosed = true;
}

}  // namespace Hox::ObserverTree
