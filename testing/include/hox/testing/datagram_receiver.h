#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Testing {

/// The receiving end of a local datagram socket: replaces a daemon that only receives.
///
/// Used by one thread; senders may be any thread or process.
class DatagramReceiver {
public:
    /// Binds a new socket at the path, whose folder must exist; throws std::system_error.
    explicit DatagramReceiver(const std::filesystem::path& path);

    /// Binds a new socket under a name that the kernel chooses. The name disappears with the
    /// socket, however the process ends. Throws std::system_error.
    DatagramReceiver();
    ~DatagramReceiver();
    DatagramReceiver(const DatagramReceiver&) = delete;
    DatagramReceiver& operator=(const DatagramReceiver&) = delete;
    DatagramReceiver(DatagramReceiver&&) = delete;
    DatagramReceiver& operator=(DatagramReceiver&&) = delete;

    /// The address: the path, or "@" and the name.
    std::string address() const { return m_address; }

    /// All messages that have arrived so far, in order; never blocks. Throws std::system_error.
    const std::vector<std::string>& messages();

private:
    std::string m_address;
    LinuxCppUtil::OwnedFileDescriptor m_socket;
    std::vector<std::string> m_messages;
};

}  // namespace Hox::Testing
