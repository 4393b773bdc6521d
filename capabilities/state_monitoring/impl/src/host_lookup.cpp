#include "host_lookup.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <sstream>
#include <utility>

#include "hox/linutils/raii_filedescriptors.h"
#include "manager_address.h"

namespace Hox::Capability::StateMonitoring {

namespace {

/// From a failed attempt to the next one.
constexpr int pauseMilliseconds = 30'000;

/// The addresses of a host take less.
constexpr std::size_t longestAnswer = 65'536;

/// A child process, killed and waited for at the end.
class Child {
public:
    /// Runs the program with its standard output in the descriptor and an empty signal mask. It
    /// gets no other descriptor of this process than those below 3: a log file or a connection
    /// would stay open as long as it runs.
    Child(std::array<const char*, 5> arguments, int output) {
        posix_spawn_file_actions_t actions;
        posix_spawnattr_t attributes;
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
        posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
        if (posix_spawnp(&m_pid, arguments[0], &actions, &attributes,
                         const_cast<char* const*>(arguments.data()), environ) != 0) {
            m_pid = -1;
        }
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }

    ~Child() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
    }
    Child(const Child&) = delete;
    Child(Child&&) = delete;
    Child& operator=(const Child&) = delete;
    Child& operator=(Child&&) = delete;

private:
    pid_t m_pid = -1;
};

/// The address at the start of a line: the first one of IPv4, else the first one. A host that has
/// both kinds may well have a manager that listens on IPv4 alone, as "localhost" usually has.
std::optional<std::string> bestAddress(const std::string& answer) {
    std::istringstream lines(answer);
    std::optional<std::string> best;
    for (std::string line; std::getline(lines, line);) {
        const auto address = line.substr(0, line.find_first_of(" \t"));
        if (ManagerAddress(address).kind != ManagerAddress::Kind::Number) {
            continue;
        }
        if (address.find(':') == std::string::npos) {
            return address;
        }
        best = best.value_or(address);
    }
    return best;
}

}  // namespace

HostLookup::HostLookup(std::string host, std::function<void()> onFailure)
    : m_host(std::move(host)), m_onFailure(std::move(onFailure)), m_thread([this] { run(); }) {}

HostLookup::~HostLookup() {
    m_end.give();
    m_thread.join();
}

std::optional<std::string> HostLookup::address() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_address;
}

void HostLookup::waitForFirstAttempt(std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, limit, [this] { return m_hasTried; });
}

void HostLookup::run() {
    for (bool isFirst = true;; isFirst = false) {
        auto address = askOnce();
        if (m_end.isGiven()) {
            return;
        }
        const bool isKnown = address.has_value();
        if (isFirst && !isKnown) {
            m_onFailure();
        }
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_hasTried = true;
            m_address = std::move(address);
        }
        m_changed.notify_all();
        if (isKnown || m_end.isGiven(pauseMilliseconds)) {
            return;
        }
    }
}

std::optional<std::string> HostLookup::askOnce() const {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    const auto output = LinuxCppUtil::ownFileDescriptor(ends[0]);
    auto input = LinuxCppUtil::ownFileDescriptor(ends[1]);
    const Child child({"getent", "ahosts", "--", m_host.c_str(), nullptr}, ends[1]);
    input.reset();
    return bestAddress(readAnswer(ends[0]));
}

/// Until the child closes its output or the thread must end.
std::string HostLookup::readAnswer(int output) const {
    std::string answer;
    std::array<pollfd, 2> events{pollfd{output, POLLIN, 0}, pollfd{m_end.descriptor(), POLLIN, 0}};
    while (answer.size() < longestAnswer) {
        if (poll(events.data(), events.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if (events[1].revents != 0) {
            break;
        }
        std::array<char, 1024> buffer{};
        const auto length = read(output, buffer.data(), buffer.size());
        if (length <= 0) {
            break;
        }
        answer.append(buffer.data(), static_cast<std::size_t>(length));
    }
    return answer;
}

}  // namespace Hox::Capability::StateMonitoring
