#include "change_runner.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "ctl_error.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "write_all.h"

namespace Hox::Ctl {

using LinuxCppUtil::OwnedFileDescriptor;

namespace {

[[noreturn]] void fail(int error) {
    throw CtlError(ExitCode::Usage, "the command of --exec cannot be started: " +
                                        std::generic_category().message(error));
}

/// A file in memory, at its start. Unlike a pipe it takes everything before the reader exists.
OwnedFileDescriptor inputFile(const std::string& text) {
    auto file = LinuxCppUtil::ownFileDescriptor(::memfd_create("change", MFD_CLOEXEC));
    if (!file || !writeAll(*file, text) || ::lseek(*file, 0, SEEK_SET) != 0) {
        fail(errno);
    }
    return file;
}

/// How the child starts: with the file as its input, and with no signal blocked.
class SpawnSettings {
public:
    explicit SpawnSettings(int input) {
        posix_spawn_file_actions_init(&m_actions);
        posix_spawn_file_actions_adddup2(&m_actions, input, STDIN_FILENO);
        posix_spawnattr_init(&m_attributes);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&m_attributes, &none);
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK);
    }
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&m_actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    const posix_spawn_file_actions_t* actions() const { return &m_actions; }
    const posix_spawnattr_t* attributes() const { return &m_attributes; }

private:
    posix_spawn_file_actions_t m_actions{};
    posix_spawnattr_t m_attributes{};
};

}  // namespace

void ChangeRunner::take(const Change& change, const ServiceModel& /*model*/,
                        const PackedValues& values) {
    const auto input = inputFile(values.json().line(change) + "\n");
    const SpawnSettings settings(*input);
    std::string shell = "sh";
    std::string option = "-c";
    const std::array<char*, 4> words{shell.data(), option.data(), m_command.data(), nullptr};
    pid_t child = 0;
    const int error = ::posix_spawn(&child, "/bin/sh", settings.actions(), settings.attributes(),
                                    words.data(), environ);
    if (error != 0) {
        fail(error);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (status != 0) {
        m_note(WIFSIGNALED(status)
                   ? "the command of --exec was ended by signal " + std::to_string(WTERMSIG(status))
                   : "the command of --exec has failed with status " +
                         std::to_string(WEXITSTATUS(status)));
    }
}

}  // namespace Hox::Ctl
