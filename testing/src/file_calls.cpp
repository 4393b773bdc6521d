#include "hox/testing/file_calls.h"

#include <fcntl.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "hox/linutils/raii_filedescriptors.h"
#include "hox/testing/wait_until.h"
#include "known_calls.h"

namespace Hox::Testing {

using LinuxCppUtil::OwnedFileDescriptor;

namespace {

constexpr int timeLimit = 20000;  // milliseconds

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// The descriptor returned by a call; throws if the call has failed.
OwnedFileDescriptor descriptor(int number, const char* what) {
    if (number < 0) {
        fail(what);
    }
    return LinuxCppUtil::ownFileDescriptor(number);
}

/// What the system tells of a process that should have ended: its state, and the call that it waits
/// in with its arguments.
std::string standstill(pid_t child) {
    const std::string folder = "/proc/" + std::to_string(child);
    std::string text;
    for (const char* const name : {"/syscall", "/wchan", "/status"}) {
        std::ifstream file(folder + name);
        text.append("\n").append(name + 1).append(": ");
        text.append(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return text;
}

/// Whether all other threads of this process wait for something.
bool areOthersAsleep() {
    const auto own = std::to_string(syscall(SYS_gettid));
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "stat");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        const auto name = text.rfind(") ");  // the state comes after the name
        if (task.path().filename() != own && name != std::string::npos && text[name + 2] != 'S') {
            return false;
        }
    }
    return true;
}

std::string readWhole(const OwnedFileDescriptor& file) {
    std::string text(static_cast<std::size_t>(lseek(*file, 0, SEEK_END)), '\0');
    const ssize_t got = pread(*file, text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

union ControlBuffer {
    cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(int))];
};

msghdr messageFor(iovec& data, ControlBuffer& control) {
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof(control.bytes);
    return message;
}

/// Runs in the child. From here on its calls wait for the parent.
bool handOverCalls(int socket, std::vector<sock_filter>& filter) {
    const sock_fprog program = {static_cast<std::uint16_t>(filter.size()), filter.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return false;
    }
    const auto listener = static_cast<int>(
        syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
    if (listener < 0) {
        return false;
    }
    char byte = 0;
    iovec data = {&byte, 1};
    ControlBuffer control{};
    msghdr message = messageFor(data, control);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &listener, sizeof(int));
    const bool sent = sendmsg(socket, &message, MSG_NOSIGNAL) == 1;
    close(listener);
    return sent;
}

int receiveListener(int socket) {
    char byte = 0;
    iovec data = {&byte, 1};
    ControlBuffer control{};
    msghdr message = messageFor(data, control);
    if (recvmsg(socket, &message, MSG_CMSG_CLOEXEC) != 1 || CMSG_FIRSTHDR(&message) == nullptr) {
        errno = ENOTSUP;
        return -1;
    }
    int listener = -1;
    std::memcpy(&listener, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof(int));
    return listener;
}

constexpr int endOfAction = 0;
constexpr int endByException = 1;
constexpr int endWithoutFilter = 2;

[[noreturn]] void beChild(const std::function<std::string()>& action, int socket, int answers,
                          int errors, std::vector<sock_filter>& filter) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    dup2(answers, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    if (!handOverCalls(socket, filter)) {
        _exit(endWithoutFilter);
    }
    close(socket);
    try {
        const std::string answer = action();
        const ssize_t written = write(STDOUT_FILENO, answer.data(), answer.size());
        _exit(written == static_cast<ssize_t>(answer.size()) ? endOfAction : endByException);
    } catch (const std::exception& error) {
        dprintf(STDERR_FILENO, "exception: %s\n", error.what());
        _exit(endByException);
    }
}

OwnedFileDescriptor memoryOf(pid_t child) {
    return descriptor(
        open(("/proc/" + std::to_string(child) + "/mem").c_str(), O_RDONLY | O_CLOEXEC), "open");
}

std::string readPath(pid_t child, std::uint64_t address) {
    const auto memory = memoryOf(child);
    std::string path;
    while (true) {
        // Not beyond the end of a page: the next page need not exist.
        char part[256];
        const std::size_t size = std::min<std::uint64_t>(sizeof(part), 4096 - address % 4096);
        const ssize_t got = pread(*memory, part, size, static_cast<off_t>(address));
        if (got <= 0) {
            return path;
        }
        const auto length = strnlen(part, static_cast<std::size_t>(got));
        path.append(part, length);
        if (length < static_cast<std::size_t>(got)) {
            return path;
        }
        address += static_cast<std::uint64_t>(got);
    }
}

/// The path of the open file; empty for a pipe or a socket, which the sanitizers also write to.
/// AT_FDCWD means the working directory.
std::string openFile(pid_t child, std::uint64_t number) {
    const auto file = static_cast<int>(number);
    std::error_code error;
    const auto target = std::filesystem::read_symlink(
        "/proc/" + std::to_string(child) +
            (file == AT_FDCWD ? "/cwd" : "/fd/" + std::to_string(file)),
        error);
    return target.is_absolute() ? target.string() : std::string();
}

/// Makes the first half of a write for the child; returns the number of bytes written, or the
/// negated errno.
std::int64_t writeHalf(pid_t child, const seccomp_data& data) {
    std::string bytes(data.args[2] / 2, '\0');
    const auto memory = memoryOf(child);
    if (pread(*memory, bytes.data(), bytes.size(), static_cast<off_t>(data.args[1])) < 0) {
        fail("memory of a child");
    }
    const auto process = descriptor(static_cast<int>(syscall(SYS_pidfd_open, child, 0)), "pidfd");
    const auto target = descriptor(
        static_cast<int>(syscall(SYS_pidfd_getfd, *process, data.args[0], 0)), "pidfd_getfd");
    const ssize_t written = write(*target, bytes.data(), bytes.size());
    return written < 0 ? -errno : written;
}

/// The parent's side of a running child.
class Watch {
public:
    Watch(pid_t child, const std::optional<Fault>& fault, AtCall atCall)
        : m_child(child), m_fault(fault), m_atCall(std::move(atCall)) {}

    /// Answers each call until no process is left that could make one.
    void serve(const OwnedFileDescriptor& listener, WatchedRun& run) {
        while (true) {
            pollfd events = {*listener, POLLIN, 0};
            const int ready = poll(&events, 1, timeLimit);
            if (ready == 0) {
                throw std::runtime_error("a watched child did not end in time, after " +
                                         std::to_string(run.calls.size()) + " calls" +
                                         standstill(m_child));
            }
            if ((events.revents & POLLIN) != 0) {
                answerNext(*listener, run);
            } else if ((events.revents & POLLHUP) != 0) {
                return;
            }
        }
    }

private:
    void answerNext(int listener, WatchedRun& run) {
        seccomp_notif request{};
        if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &request) != 0) {
            return;  // its thread has ended meanwhile
        }
        const auto& call = *std::find_if(
            knownCalls().begin(), knownCalls().end(),
            [&request](const auto& known) { return known.number == request.data.nr; });
        seccomp_notif_resp response{};
        response.id = request.id;
        const FileCall described = describe(call, request.data);
        if (call.isOnDescriptor() && described.path.empty()) {
            response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
            ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
            return;
        }
        const bool isFirst = m_fault && m_fault->call == run.calls.size();
        const bool isFaulty = isFirst || isLaterOne(described, run);
        run.calls.push_back(described);
        if (m_atCall) {
            m_atCall(run.calls.size() - 1, run.calls.back());
        }
        if (isFaulty && m_fault->halved) {
            response.val = writeHalf(m_child, request.data);
        } else if (isFaulty && m_fault->error == 0) {
            kill(m_child, SIGKILL);
            return;
        } else if (isFaulty) {
            response.error = -m_fault->error;
        } else if (call.isMade) {
            response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        }
        ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
    }

    bool isLaterOne(const FileCall& call, const WatchedRun& run) const {
        return m_fault && m_fault->lasting && m_fault->call < run.calls.size() &&
               run.calls[m_fault->call].name == call.name;
    }

    FileCall describe(const KnownCall& known, const seccomp_data& data) const {
        FileCall call;
        call.name = known.name;
        call.changes = !known.onlyLooks() &&
                       (!known.isOpen() || (data.args[known.path + 1] & writeFlags) != 0);
        if (known.isOnDescriptor()) {
            call.path = openFile(m_child, data.args[0]);
        } else if (known.kind != CallKind::Whole) {
            call.path = readPath(m_child, data.args[known.path]);
        }
        if (known.isAt() && call.path.rfind('/', 0) != 0) {
            const auto folder = openFile(m_child, data.args[known.path - 1]);
            call.path = call.path.empty() ? folder : folder + "/" + call.path;
        }
        return call;
    }

    const pid_t m_child;
    const std::optional<Fault> m_fault;
    const AtCall m_atCall;
};

/// Ensures that the child has ended when the object is destroyed.
class Child {
public:
    explicit Child(pid_t id) : m_id(id) {}
    ~Child() {
        if (!m_ended) {
            kill(m_id, SIGKILL);
            wait();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    Child(Child&&) = delete;
    Child& operator=(Child&&) = delete;

    /// Waits for the end of the child; returns the status from waitpid.
    int wait() {
        int status = 0;
        while (waitpid(m_id, &status, 0) < 0 && errno == EINTR) {
        }
        m_ended = true;
        return status;
    }

private:
    const pid_t m_id;
    bool m_ended = false;
};

}  // namespace

WatchedRun runWatched(const std::function<std::string()>& action, FileCalls listed,
                      const std::optional<Fault>& fault, const AtCall& atCall) {
    auto filter = filterFor(listed);
    const auto answers = descriptor(memfd_create("answers", MFD_CLOEXEC), "memfd_create");
    const auto errors = descriptor(memfd_create("errors", MFD_CLOEXEC), "memfd_create");
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        fail("socketpair");
    }
    const auto own = descriptor(pair[0], "socketpair");
    auto theirs = descriptor(pair[1], "socketpair");
    // A child inherits the locks of threads that it does not have: of the allocator, for example,
    // if one of them has just started.
    if (!waitUntil(areOthersAsleep)) {
        throw std::runtime_error("another thread does not rest");
    }
    const pid_t id = fork();
    if (id < 0) {
        fail("fork");
    }
    if (id == 0) {
        beChild(action, *theirs, *answers, *errors, filter);
    }
    Child child(id);
    theirs.reset();
    WatchedRun run;
    const auto listener = descriptor(receiveListener(*own), "a filter of system calls");
    Watch(id, fault, atCall).serve(listener, run);
    const int status = child.wait();
    run.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    run.errors = readWhole(errors);
    if (WIFEXITED(status) && WEXITSTATUS(status) == endOfAction) {
        run.answer = readWhole(answers);
    }
    return run;
}

}  // namespace Hox::Testing
