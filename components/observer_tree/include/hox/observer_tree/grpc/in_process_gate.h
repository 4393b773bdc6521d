#pragma once

#include <mutex>
#include <shared_mutex>

namespace Hox::ObserverTree {

/// Stands before the channel to the process's own server.
///
/// A call that is started on such a channel once the server has been shut down crashes inside gRPC,
/// so the owner of the server closes the gate first. All functions are for any thread.
class InProcessGate {
public:
    /// Keeps the server up as long as the lock is held. A lock that owns nothing: the gate is
    /// closed.
    std::shared_lock<std::shared_mutex> pass();

    /// Lets nobody pass any more and waits until those who did are through.
    void close();

private:
    std::shared_mutex m_mutex;
    bool m_isClosed = false;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::ObserverTree
