#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "hox/testing/child_process.h"
#include "hox/testing/private_bus.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Testing {

/// A machine of its own as far as mDNS can tell: a network, a /run and an Avahi daemon, which is
/// found on one bus. The test itself stays on the real machine and speaks to the bus.
class MdnsHost {
public:
    struct Settings {
        std::string hostName = "head-end";
        /// The one network interface that the daemon uses: "lo", or "cable" of joined hosts.
        std::string interface = "lo";
        /// Whether the host has addresses on the network. Without them the host name cannot
        /// be resolved, but the daemon serves within a moment instead of a second.
        bool hasAddresses = true;
    };

    /// Whether this machine lets the process make hosts; if not, the test calls skipOutsideCi.
    static bool arePossible();

    /// Makes the machine with its loopback interface up and no daemon running. The bus must live
    /// longer. Throws std::runtime_error.
    explicit MdnsHost(const PrivateBus& bus);
    MdnsHost(const PrivateBus& bus, const Settings& settings);

    /// Joins two hosts by a cable: each gets an interface "cable", with the addresses 10.0.0.1 and
    /// 10.0.0.2. Before their daemons are started; once for a host.
    static void join(MdnsHost& first, MdnsHost& second);

    /// Has the daemon publish a service as from a file of the machine; before its start.
    void addServiceFile(const std::string& name, const std::string& type, int port);

    /// Starts the daemon and waits until it serves. Throws std::runtime_error.
    void startDaemon();

    /// Starts the daemon without waiting.
    void launchDaemon();

    /// Ends the daemon in an orderly manner: it says goodbye.
    void stopDaemon();

    /// Kills the daemon: the others learn nothing.
    void killDaemon();

    /// Suspends the daemon: it stays on the bus and answers no call.
    void pauseDaemon();

    /// Continues a paused daemon.
    void resumeDaemon();

    /// Words that make a command run in the network of this host.
    std::vector<std::string> command(const std::vector<std::string>& arguments) const;

    /// What commands must have in their environment to find the host's bus.
    std::map<std::string, std::string> environment() const;

private:
    void writeConfiguration(const Settings& settings) const;
    void runTool(const std::vector<std::string>& arguments) const;

    const PrivateBus& m_bus;
    TempDir m_folder;
    ChildProcess m_holder;  // keeps the namespaces
    std::optional<ChildProcess> m_daemon;
};

}  // namespace Hox::Testing
