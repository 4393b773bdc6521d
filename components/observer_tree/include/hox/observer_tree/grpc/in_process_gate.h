#pragma once

#include <mutex>
#include <shared_mutex>

namespace Hox::ObserverTree {

/// Controls access to the channel to the process's own server.
///
/// A call that is started on such a channel after the server has been shut down crashes inside
/// gRPC, so the owner of the server closes the gate first. All functions can be called from any
/// thread.
class InProcessGate {
public:
    /// Keeps the server up as long as the lock is held. If the lock owns nothing, the gate is
    /// closed.
    std::shared_lock<std::shared_mutex> pass();

    /// Refuses all further passes and waits until all existing passes are released.
    void close();

private:
    std::shared_mutex m_mutex;
    bool m_isClosed = false;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::ObserverTree
