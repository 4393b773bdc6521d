#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace Hox::Ctl {

/// How a program starts: with no signal blocked, and with the files that are set here.
class ProcessStart {
public:
    ProcessStart();
    ~ProcessStart();
    ProcessStart(const ProcessStart&) = delete;
    ProcessStart& operator=(const ProcessStart&) = delete;

    /// Its file with this number is /dev/null.
    void setNull(int number);

    /// Its file with this number is this one.
    void setFile(int number, int file);

    /// It has a session of its own, the root folder, and besides input and outputs only this file.
    void detach(int keptFile);

    /// Starts it; the first word is the program, found on the path unless it has a slash. Returns
    /// the error of the system, or 0 and the child.
    int start(std::vector<std::string> words, pid_t& child) const;

private:
    posix_spawn_file_actions_t m_actions{};
    posix_spawnattr_t m_attributes{};
};

/// Waits for the end of a child. Returns its status as the system has it.
int waitForEnd(pid_t child);

}  // namespace Hox::Ctl
