#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Hox::Ctl {

/// Who listens on a port of this machine.
struct Listeners {
    std::set<pid_t> processes;
    bool isComplete = true;  ///< Whether all of them can be seen.
};

/// The processes that have opened a TCP socket on the port that listens for clients on this
/// machine; those that have inherited one do not count.
Listeners listenersOn(std::uint16_t port);

/// A running service, as the kernel shows it to this user.
class ServiceProcess {
public:
    /// Looks at the process once. What the user may not see is empty.
    explicit ServiceProcess(pid_t pid);

    pid_t pid() const { return m_pid; }

    /// Its effective user.
    uid_t uid() const { return m_uid; }

    /// The path of the running program, also if it has been deleted or replaced.
    const std::string& program() const { return m_program; }

    /// Whether the program on the disk is not the running one any more.
    bool isProgramDeleted() const { return m_isProgramDeleted; }

    /// The folder below which the tool sees the files that the process sees, without a slash at its
    /// end.
    const std::string& root() const { return m_root; }

    /// Whether the option is on its command line.
    bool has(const std::string& option) const;

    /// The value of the option on its command line, in either form; nothing without it.
    std::optional<std::string> valueOf(const std::string& option) const;

    /// The path as the process means it: one that is relative starts at its folder.
    std::string absolute(const std::string& path) const;

private:
    pid_t m_pid;
    uid_t m_uid = 0;
    std::string m_program;
    bool m_isProgramDeleted = false;
    std::string m_root;
    std::string m_folder;
    std::vector<std::string> m_words;
};

}  // namespace Hox::Ctl
