#pragma once

#include <chrono>
#include <string>

#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Capability::StateMonitoring::Fixture {

/// A UDP port of the loopback interface.
class UdpReceiver {
public:
    /// Listens on a port that nobody uses.
    UdpReceiver();

    /// The number of the port.
    std::string port() const;

    /// The next datagram; empty if none arrives in time.
    std::string receive(std::chrono::milliseconds limit = std::chrono::seconds(10));

    /// Whether no datagram is there.
    bool isEmpty() { return receive(std::chrono::milliseconds(0)).empty(); }

private:
    LinuxCppUtil::OwnedFileDescriptor m_socket;
};

}  // namespace Hox::Capability::StateMonitoring::Fixture
