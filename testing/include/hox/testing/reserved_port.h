#pragma once

#include <cstdint>
#include <string>

#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Testing {

/// A TCP port that no other program gets during the lifetime of the object. A server that sets
/// SO_REUSEADDR, as servers usually do, can listen on it.
class ReservedPort {
public:
    /// Takes a free port; throws std::system_error.
    ReservedPort();

    /// The port, never 0.
    std::uint16_t number() const { return m_number; }
    /// The same in decimal digits, for a command line or an address.
    std::string text() const { return std::to_string(m_number); }

private:
    LinuxCppUtil::OwnedFileDescriptor m_socket;
    std::uint16_t m_number = 0;
};

}  // namespace Hox::Testing
