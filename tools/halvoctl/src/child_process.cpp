#include "child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

constexpr int notRun = 127;
constexpr int endedBySignal = 128;

/// How a child starts: with /dev/null as its input and outputs, and with no signal blocked.
class QuietStart {
public:
    QuietStart() {
        posix_spawn_file_actions_init(&m_actions);
        posix_spawnattr_init(&m_attributes);
        for (const int file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            posix_spawn_file_actions_addopen(&m_actions, file, "/dev/null", O_RDWR, 0);
        }
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&m_attributes, &none);
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK);
    }
    ~QuietStart() {
        posix_spawn_file_actions_destroy(&m_actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    QuietStart(const QuietStart&) = delete;
    QuietStart& operator=(const QuietStart&) = delete;

    void detach(int keptFile) {
        constexpr int place = STDERR_FILENO + 1;
        posix_spawn_file_actions_adddup2(&m_actions, keptFile, place);
        posix_spawn_file_actions_addclosefrom_np(&m_actions, place + 1);
        posix_spawn_file_actions_addchdir_np(&m_actions, "/");
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
    }

    /// Returns the error of the system, or 0.
    int start(std::vector<std::string> words, pid_t& child) const {
        std::vector<char*> arguments;
        arguments.reserve(words.size() + 1);
        for (auto& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        return ::posix_spawnp(&child, arguments.front(), &m_actions, &m_attributes,
                              arguments.data(), environ);
    }

private:
    posix_spawn_file_actions_t m_actions{};
    posix_spawnattr_t m_attributes{};
};

}  // namespace

int runQuietly(const std::vector<std::string>& words) {
    pid_t child = 0;
    if (QuietStart().start(words, child) != 0) {
        return notRun;
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? endedBySignal + WTERMSIG(status) : WEXITSTATUS(status);
}

void startDetached(const std::vector<std::string>& words, int keptFile) {
    QuietStart start;
    start.detach(keptFile);
    pid_t child = 0;
    const int error = start.start(words, child);
    if (error != 0) {
        throw CtlError(ExitCode::Usage, "cannot start " + words.front() + ": " +
                                            std::generic_category().message(error));
    }
}

}  // namespace Hox::Ctl
