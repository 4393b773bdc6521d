#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Hox::Testing {

/// A program that runs beside the test and does not outlive it, however the test ends.
///
/// Made on a thread that lives as long as the object: the program ends with that thread.
class ChildProcess {
public:
    /// Starts the program, which is looked for on the path, with these variables in addition to the
    /// test's own environment; throws std::system_error. A program that is not there shows as one
    /// that ends with 127.
    explicit ChildProcess(const std::vector<std::string>& arguments,
                          const std::map<std::string, std::string>& environment = {});

    /// Kills the program and waits for its end.
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// The process's number. It is the program's own also where the arguments begin with commands
    /// that are replaced by the next one, as nsenter is.
    pid_t pid() const { return m_pid; }

    /// Whether the program has not ended.
    bool isRunning();

    /// Sends a signal; nothing happens after the end.
    void signal(int number);

    /// Waits for the end; returns the exit status, or 128 and the signal's number, or nothing if
    /// the program still runs.
    std::optional<int> waitForEnd(std::chrono::milliseconds deadline = std::chrono::seconds(30));

    /// What it has written to standard output and standard error so far.
    std::string output() const;

private:
    int m_output = -1;
    pid_t m_pid = -1;
    std::optional<int> m_status;
};

}  // namespace Hox::Testing
