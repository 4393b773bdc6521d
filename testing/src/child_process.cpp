#include "hox/testing/child_process.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "hox/testing/wait_until.h"

namespace Hox::Testing {

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (auto& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& additions) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (additions.count(text.substr(0, text.find('='))) == 0) {
            result.push_back(text);
        }
    }
    for (const auto& [name, value] : additions) {
        result.push_back(name + "=" + value);
    }
    return result;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments,
                           const std::map<std::string, std::string>& environment)
    : m_output(memfd_create("output", MFD_CLOEXEC)) {
    std::vector<std::string> command = {"setpriv", "--pdeathsig", "KILL", "--"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    auto variables = environmentWith(environment);

    // Nothing that the test has blocked or ignored reaches the program.
    posix_spawnattr_t attributes = {};
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    posix_spawn_file_actions_t actions = {};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", 0, 0);
    posix_spawn_file_actions_adddup2(&actions, m_output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, m_output, STDERR_FILENO);
    const auto error = posix_spawnp(&m_pid, command[0].c_str(), &actions, &attributes,
                                    pointers(command).data(), pointers(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        close(m_output);
        throw std::system_error(error, std::generic_category(), "cannot start " + command[0]);
    }
}

ChildProcess::~ChildProcess() {
    if (!m_status) {
        ::kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_output);
}

bool ChildProcess::isRunning() {
    return !waitForEnd(std::chrono::milliseconds(0));
}

void ChildProcess::signal(int number) {
    if (isRunning()) {
        ::kill(m_pid, number);
    }
}

std::optional<int> ChildProcess::waitForEnd(std::chrono::milliseconds deadline) {
    const auto hasEnded = [this] {
        int status = 0;
        if (!m_status && waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return m_status.has_value();
    };
    waitUntil(hasEnded, deadline);
    return m_status;
}

std::string ChildProcess::output() const {
    std::string text;
    std::array<char, 4096> buffer = {};
    ssize_t count = 0;
    while ((count = pread(m_output, buffer.data(), buffer.size(),
                          static_cast<off_t>(text.size()))) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

}  // namespace Hox::Testing
