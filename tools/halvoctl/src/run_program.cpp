#include "run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "ctl_error.h"
#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Ctl {

using Clock = std::chrono::steady_clock;

namespace {

[[noreturn]] void fail(const std::string& program, const std::string& reason) {
    throw CtlError(ExitCode::Usage, program + ": " + reason);
}

/// A child that ends with this object.
class Child {
public:
    Child(std::vector<std::string>& words, int output) {
        std::vector<char*> pointers;
        for (auto& word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        const int error =
            ::posix_spawnp(&m_pid, pointers[0], &actions, nullptr, pointers.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0) {
            m_pid = -1;
            fail(words.front(), std::generic_category().message(error));
        }
    }
    ~Child() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            wait();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Waits for the end; returns whether it has succeeded.
    bool wait() {
        int status = 0;
        while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
        m_pid = -1;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

private:
    pid_t m_pid = -1;
};

}  // namespace

std::string outputOf(std::vector<std::string> words, std::chrono::milliseconds limit) {
    constexpr std::size_t blockSize = 65536;
    const auto deadline = Clock::now() + limit;
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        fail(words.front(), std::generic_category().message(errno));
    }
    const auto output = LinuxCppUtil::ownFileDescriptor(ends[0]);
    auto input = LinuxCppUtil::ownFileDescriptor(ends[1]);
    Child child(words, *input);
    input.reset();
    std::string text;
    std::vector<char> block(blockSize);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd ready{*output, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) == 0) {
            fail(words.front(), "takes too long");
        }
        const auto count = ::read(*output, block.data(), block.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
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

}  // namespace Hox::Ctl
