#pragma once

#include <spdlog/logger.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "end_signal.h"
#include "hox/linutils/raii_filedescriptors.h"

struct sd_bus;

namespace Hox::Capability::StateMonitoring {

/// Watches the overall state of the machine's service manager over the system bus, on a separate
/// thread.
///
/// After a loss of the bus it tries to reconnect once per second.
class SystemdWatcher {
public:
    /// Receives the manager's state, as the manager calls it, whenever it may have changed. Called
    /// on the watcher's thread under no lock; must not throw.
    using Receiver = std::function<void(const std::string& managerState)>;

    /// Starts the thread. Asserts there that the bus can be used at the start. Throws
    /// std::system_error if no thread or descriptor can be created.
    explicit SystemdWatcher(Receiver receiver);

    /// Ends the thread immediately, regardless of bus and manager; waits for a running receiver.
    ~SystemdWatcher();
    SystemdWatcher(const SystemdWatcher&) = delete;
    SystemdWatcher(SystemdWatcher&&) = delete;
    SystemdWatcher& operator=(const SystemdWatcher&) = delete;
    SystemdWatcher& operator=(SystemdWatcher&&) = delete;

private:
    struct BusCloser {
        void operator()(sd_bus* bus) const;
    };
    using Bus = std::unique_ptr<sd_bus, BusCloser>;

    void run();
    void openAtTheStart();
    bool openAgain();
    int openBus();
    int matchSignals();
    void watch();
    bool processBus();
    void checkSystemState();
    void closeBus();

    const std::shared_ptr<spdlog::logger> m_logger;
    const Receiver m_receiver;
    EndSignal m_end;

    Bus m_bus;                                  // on the thread only
    LinuxCppUtil::OwnedFileDescriptor m_epoll;  // on the thread only
    bool m_isSubscribed = false;                // on the thread only
    bool m_isDue = false;                       // the manager has not answered. On the thread only
    std::mutex m_mutex;     // against the closing of the descriptor while it is shut down
    int m_descriptor = -1;  // of the bus. GUARDED_BY(m_mutex)
    std::thread m_thread;
};

}  // namespace Hox::Capability::StateMonitoring
