#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "ctl_error.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "process_start.h"

namespace Hox::Ctl {

using LinuxCppUtil::ownFileDescriptor;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr int notRun = 127;
constexpr int endedBySignal = 128;

[[noreturn]] void fail(const std::string& program, const std::string& reason) {
    throw CtlError(ExitCode::Usage, program + ": " + reason);
}

[[noreturn]] void fail(const std::string& program, int error) {
    fail(program, std::generic_category().message(error));
}

void setQuiet(ProcessStart& start) {
    for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        start.setNull(number);
    }
}

/// A child that ends with this object.
class BoundChild {
public:
    BoundChild(const std::vector<std::string>& words, int output) {
        ProcessStart start;
        setQuiet(start);
        start.setFile(STDOUT_FILENO, output);
        if (const int error = start.start(words, m_pid); error != 0) {
            fail(words.front(), error);
        }
    }
    ~BoundChild() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            wait();
        }
    }
    BoundChild(const BoundChild&) = delete;
    BoundChild& operator=(const BoundChild&) = delete;

    /// Waits for the end; returns whether it has succeeded.
    bool wait() {
        const int status = waitForEnd(m_pid);
        m_pid = -1;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

private:
    pid_t m_pid = -1;
};

/// Waits until the file can be read. Returns false at the deadline.
bool waitForInput(int file, SteadyClock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
        pollfd ready{file, POLLIN, 0};
        const int count = left.count() <= 0 ? 0 : ::poll(&ready, 1, static_cast<int>(left.count()));
        if (count >= 0 || errno != EINTR) {
            return count > 0;
        }
    }
}

}  // namespace

int runQuietly(const std::vector<std::string>& words) {
    ProcessStart start;
    setQuiet(start);
    pid_t child = 0;
    if (start.start(words, child) != 0) {
        return notRun;
    }
    const int status = waitForEnd(child);
    return WIFSIGNALED(status) ? endedBySignal + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string outputOf(const std::vector<std::string>& words, std::chrono::milliseconds limit) {
    constexpr std::size_t blockSize = 65536;
    const auto deadline = SteadyClock::now() + limit;
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        fail(words.front(), errno);
    }
    const auto output = ownFileDescriptor(ends[0]);
    auto input = ownFileDescriptor(ends[1]);
    BoundChild child(words, *input);
    input.reset();
    std::string text;
    std::vector<char> block(blockSize);
    for (;;) {
        if (!waitForInput(*output, deadline)) {
            fail(words.front(), "takes too long");
        }
        const auto count = ::read(*output, block.data(), block.size());
        if (count <= 0) {
            break;
        }
        text.append(block.data(), static_cast<std::size_t>(count));
    }
    if (!child.wait()) {
        fail(words.front(), "has failed");
    }
    return text;
}

void startDetached(const std::vector<std::string>& words, int keptFile) {
    ProcessStart start;
    setQuiet(start);
    start.detach(keptFile);
    pid_t child = 0;
    if (const int error = start.start(words, child); error != 0) {
        throw CtlError(ExitCode::Usage, "cannot start " + words.front() + ": " +
                                            std::generic_category().message(error));
    }
}

}  // namespace Hox::Ctl
