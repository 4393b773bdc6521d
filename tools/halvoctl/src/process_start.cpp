#include "process_start.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace Hox::Ctl {

ProcessStart::ProcessStart() {
    posix_spawn_file_actions_init(&m_actions);
    posix_spawnattr_init(&m_attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&m_attributes, &none);
    posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK);
}

ProcessStart::~ProcessStart() {
    posix_spawn_file_actions_destroy(&m_actions);
    posix_spawnattr_destroy(&m_attributes);
}

void ProcessStart::setNull(int number) {
    posix_spawn_file_actions_addopen(&m_actions, number, "/dev/null", O_RDWR, 0);
}

void ProcessStart::setFile(int number, int file) {
    posix_spawn_file_actions_adddup2(&m_actions, file, number);
}

void ProcessStart::detach(int keptFile) {
    constexpr int place = STDERR_FILENO + 1;
    setFile(place, keptFile);
    posix_spawn_file_actions_addclosefrom_np(&m_actions, place + 1);
    posix_spawn_file_actions_addchdir_np(&m_actions, "/");
    posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
}

int ProcessStart::start(std::vector<std::string> words, pid_t& child) const {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (auto& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    return ::posix_spawnp(&child, arguments.front(), &m_actions, &m_attributes, arguments.data(),
                          environ);
}

int waitForEnd(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

}  // namespace Hox::Ctl
