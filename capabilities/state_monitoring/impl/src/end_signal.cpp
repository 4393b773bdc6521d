#include "end_signal.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

namespace Hox::Capability::StateMonitoring {

EndSignal::EndSignal() : m_event(LinuxCppUtil::ownFileDescriptor(eventfd(0, EFD_CLOEXEC))) {
    if (!m_event) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void EndSignal::give() const {
    eventfd_write(descriptor(), 1);
}

bool EndSignal::isGiven(int milliseconds) const {
    pollfd event{descriptor(), POLLIN, 0};
    return poll(&event, 1, milliseconds) > 0;
}

}  // namespace Hox::Capability::StateMonitoring
