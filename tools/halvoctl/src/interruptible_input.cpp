#include "interruptible_input.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "ctl_error.h"

namespace Hox::Ctl {

InterruptibleInput::InterruptibleInput(int file, Interrupt& interrupt)
    : m_file(file), m_end(LinuxCppUtil::ownFileDescriptor(::eventfd(0, EFD_CLOEXEC))) {
    if (!m_end) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    m_request = interrupt.onRequest([end = *m_end] { ::eventfd_write(end, 1); });
}

void InterruptibleInput::waitForBytes() const {
    std::array<pollfd, 2> files{{{m_file, POLLIN, 0}, {*m_end, POLLIN, 0}}};
    while (::poll(files.data(), files.size(), -1) < 0 && errno == EINTR) {
    }
    if (files[1].revents != 0) {
        throw CtlError(ExitCode::Interrupted, "");
    }
}

std::streambuf::int_type InterruptibleInput::underflow() {
    ssize_t count = 0;
    do {
        waitForBytes();
        count = ::read(m_file, m_block.data(), m_block.size());
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        return traits_type::eof();
    }
    setg(m_block.data(), m_block.data(), m_block.data() + count);
    return traits_type::to_int_type(m_block.front());
}

}  // namespace Hox::Ctl
