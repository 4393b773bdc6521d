#pragma once

#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Capability::StateMonitoring {

/// Signals a thread to end, even while it waits for a descriptor. Callable from any thread.
class EndSignal {
public:
    /// Throws std::system_error if there is no descriptor left.
    EndSignal();

    /// Gives the signal, for good.
    void give() const;

    /// Whether the signal has been given. Waits for it, but not longer than the limit.
    bool isGiven(int milliseconds = 0) const;

    /// Readable once the signal has been given, as long as this object exists.
    int descriptor() const { return LinuxCppUtil::fileDescriptorNumber(m_event); }

private:
    const LinuxCppUtil::OwnedFileDescriptor m_event;
};

}  // namespace Hox::Capability::StateMonitoring
