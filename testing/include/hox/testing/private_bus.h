#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "hox/testing/child_process.h"

namespace Hox::Testing {

/// A real D-Bus system bus of the test's own, on which everybody may do everything.
///
/// Starts, stops and dies as the test says, without the address changing: the bus libraries read
/// it once in a process.
class PrivateBus {
public:
    /// Starts the system bus of this process, one at a time; the first one is made before other
    /// threads run, as it sets DBUS_SYSTEM_BUS_ADDRESS.
    PrivateBus();

    /// Starts a further bus, which is not in the environment.
    explicit PrivateBus(const std::filesystem::path& folder);

    /// Where it listens, as D-Bus writes it.
    const std::string& address() const { return m_address; }

    /// Starts the daemon, and returns once it listens. Throws std::runtime_error.
    void start();

    /// Ends the daemon in an orderly manner; all connections are lost.
    void stop();

    /// Kills the daemon.
    void kill();

    /// Whether the name is owned on the bus.
    bool hasName(const std::string& name) const;

private:
    void writeConfiguration() const;

    std::filesystem::path m_folder;
    std::string m_address;
    std::optional<ChildProcess> m_daemon;
};

}  // namespace Hox::Testing
