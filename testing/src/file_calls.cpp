#include "hox/testing/file_calls.h"

#include <fcntl.h>
#include <linux/filter.h>
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
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Hox::Testing {

namespace {

constexpr int timeLimit = 20000;  // milliseconds
constexpr std::uint32_t writeFlags = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC;

/// What decides whether a call counts.
enum class Kind {
    Path,        // always; the argument is the place of the path
    Open,        // by its flags, which stand behind the path
    Descriptor,  // where the first argument is none of the three standard descriptors
    Sync         // always, and it is not made
};

struct KnownCall {
    const char* name;
    long number;
    Kind kind;
    unsigned path;
};

const std::vector<KnownCall>& knownCalls() {
    static const std::vector<KnownCall> calls = {
#ifdef SYS_mkdir  // not on newer machines, which have the forms with "at" only
        {"mkdir", SYS_mkdir, Kind::Path, 0},
        {"rmdir", SYS_rmdir, Kind::Path, 0},
        {"unlink", SYS_unlink, Kind::Path, 0},
        {"rename", SYS_rename, Kind::Path, 0},
        {"link", SYS_link, Kind::Path, 0},
        {"symlink", SYS_symlink, Kind::Path, 1},
        {"mknod", SYS_mknod, Kind::Path, 0},
        {"creat", SYS_creat, Kind::Path, 0},
        {"open", SYS_open, Kind::Open, 0},
        {"chmod", SYS_chmod, Kind::Path, 0},
        {"chown", SYS_chown, Kind::Path, 0},
        {"lchown", SYS_lchown, Kind::Path, 0},
        {"utime", SYS_utime, Kind::Path, 0},
        {"utimes", SYS_utimes, Kind::Path, 0},
        {"futimesat", SYS_futimesat, Kind::Path, 1},
#endif
#ifdef SYS_renameat
        {"renameat", SYS_renameat, Kind::Path, 1},
#endif
        {"mkdirat", SYS_mkdirat, Kind::Path, 1},
        {"unlinkat", SYS_unlinkat, Kind::Path, 1},
        {"renameat2", SYS_renameat2, Kind::Path, 1},
        {"linkat", SYS_linkat, Kind::Path, 1},
        {"symlinkat", SYS_symlinkat, Kind::Path, 2},
        {"mknodat", SYS_mknodat, Kind::Path, 1},
        {"openat", SYS_openat, Kind::Open, 1},
        {"truncate", SYS_truncate, Kind::Path, 0},
        {"fchmodat", SYS_fchmodat, Kind::Path, 1},
        {"fchownat", SYS_fchownat, Kind::Path, 1},
        {"utimensat", SYS_utimensat, Kind::Path, 1},
        {"setxattr", SYS_setxattr, Kind::Path, 0},
        {"lsetxattr", SYS_lsetxattr, Kind::Path, 0},
        {"removexattr", SYS_removexattr, Kind::Path, 0},
        {"lremovexattr", SYS_lremovexattr, Kind::Path, 0},
        {"fsetxattr", SYS_fsetxattr, Kind::Descriptor, 0},
        {"fremovexattr", SYS_fremovexattr, Kind::Descriptor, 0},
        {"ftruncate", SYS_ftruncate, Kind::Descriptor, 0},
        {"fallocate", SYS_fallocate, Kind::Descriptor, 0},
        {"fchmod", SYS_fchmod, Kind::Descriptor, 0},
        {"fchown", SYS_fchown, Kind::Descriptor, 0},
        {"write", SYS_write, Kind::Descriptor, 0},
        {"writev", SYS_writev, Kind::Descriptor, 0},
        {"pwrite64", SYS_pwrite64, Kind::Descriptor, 0},
        {"pwritev", SYS_pwritev, Kind::Descriptor, 0},
        {"pwritev2", SYS_pwritev2, Kind::Descriptor, 0},
        {"sendfile", SYS_sendfile, Kind::Descriptor, 0},
        {"sync", SYS_sync, Kind::Sync, 0},
    };
    return calls;
}

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class Descriptor {
public:
    explicit Descriptor(int number, const char* what) : m_number(number) {
        if (number < 0) {
            fail(what);
        }
    }
    ~Descriptor() { close(m_number); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;

    int operator*() const { return m_number; }

private:
    const int m_number;
};

std::string readWhole(const Descriptor& file) {
    std::string text(static_cast<std::size_t>(lseek(*file, 0, SEEK_END)), '\0');
    const ssize_t got = pread(*file, text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

sock_filter statement(unsigned code, std::size_t value) {
    return {static_cast<std::uint16_t>(code), 0, 0, static_cast<std::uint32_t>(value)};
}

sock_filter jump(unsigned code, std::size_t value, std::size_t ifTrue, std::size_t ifFalse) {
    return {static_cast<std::uint16_t>(BPF_JMP | code | BPF_K), static_cast<std::uint8_t>(ifTrue),
            static_cast<std::uint8_t>(ifFalse), static_cast<std::uint32_t>(value)};
}

sock_filter loadArgument(unsigned index) {
    return statement(BPF_LD | BPF_W | BPF_ABS,
                     offsetof(seccomp_data, args) + index * sizeof(std::uint64_t));
}

std::vector<sock_filter> filterFor(FileCalls listed) {
    const auto tell = statement(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
    const auto allow = statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    std::vector<sock_filter> program = {
        statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const auto& call : knownCalls()) {
        if (listed == FileCalls::None && call.kind != Kind::Sync) {
            continue;
        }
        std::vector<sock_filter> body;
        if (call.kind == Kind::Open && listed == FileCalls::Changing) {
            body = {loadArgument(call.path + 1), jump(BPF_JSET, writeFlags, 0, 1), tell, allow};
        } else if (call.kind == Kind::Descriptor) {
            body = {loadArgument(0), jump(BPF_JGT, STDERR_FILENO, 0, 1), tell, allow};
        } else {
            body = {tell};
        }
        program.push_back(jump(BPF_JEQ, static_cast<std::size_t>(call.number), 0, body.size()));
        program.insert(program.end(), body.begin(), body.end());
    }
    program.push_back(allow);
    return program;
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

/// In the child. From here on its calls wait for the parent.
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

std::string readPath(pid_t child, std::uint64_t address) {
    const Descriptor memory(
        open(("/proc/" + std::to_string(child) + "/mem").c_str(), O_RDONLY | O_CLOEXEC), "open");
    std::string path;
    while (true) {
        // Not beyond the end of a page: the next one need not be there.
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

/// The path of what is open there; empty for a pipe or a socket, which the sanitizers write to as
/// well.
std::string openFile(pid_t child, std::uint64_t descriptor) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink(
        "/proc/" + std::to_string(child) + "/fd/" + std::to_string(descriptor), error);
    return target.is_absolute() ? target.string() : std::string();
}

/// The parent's side of a running child.
class Watch {
public:
    Watch(pid_t child, const std::optional<Fault>& fault, AtCall atCall)
        : m_child(child), m_fault(fault), m_atCall(std::move(atCall)) {}

    /// Answers each call, until nobody is left who could make one.
    void serve(const Descriptor& listener, WatchedRun& run) {
        while (true) {
            pollfd events = {*listener, POLLIN, 0};
            const int ready = poll(&events, 1, timeLimit);
            if (ready == 0) {
                throw std::runtime_error("a watched child did not end in time");
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
            return;  // its thread has ended in the meantime
        }
        const auto& call = *std::find_if(
            knownCalls().begin(), knownCalls().end(),
            [&request](const auto& known) { return known.number == request.data.nr; });
        seccomp_notif_resp response{};
        response.id = request.id;
        const FileCall described = describe(call, request.data);
        if (call.kind == Kind::Descriptor && described.path.empty()) {
            response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
            ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
            return;
        }
        const bool isFirst = m_fault && m_fault->call == run.calls.size();
        if (isFirst || isLaterOne(described, run)) {
            response.error = -m_fault->error;
        } else if (call.kind != Kind::Sync) {
            response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        }
        run.calls.push_back(described);
        if (m_atCall) {
            m_atCall(run.calls.size() - 1, run.calls.back());
        }
        if (isFirst && m_fault->error == 0) {
            kill(m_child, SIGKILL);
            return;
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
        if (known.kind == Kind::Path || known.kind == Kind::Open) {
            call.path = readPath(m_child, data.args[known.path]);
        } else if (known.kind == Kind::Descriptor) {
            call.path = openFile(m_child, data.args[0]);
        }
        call.changes = known.kind != Kind::Open || (data.args[known.path + 1] & writeFlags) != 0;
        return call;
    }

    const pid_t m_child;
    const std::optional<Fault> m_fault;
    const AtCall m_atCall;
};

/// Ends with the child, one way or the other.
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

    /// The status of its end, as waitpid gives it.
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
    const Descriptor answers(memfd_create("answers", MFD_CLOEXEC), "memfd_create");
    const Descriptor errors(memfd_create("errors", MFD_CLOEXEC), "memfd_create");
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        fail("socketpair");
    }
    const Descriptor own(pair[0], "socketpair");
    auto theirs = std::make_unique<const Descriptor>(pair[1], "socketpair");
    const pid_t id = fork();
    if (id < 0) {
        fail("fork");
    }
    if (id == 0) {
        beChild(action, **theirs, *answers, *errors, filter);
    }
    Child child(id);
    theirs.reset();
    WatchedRun run;
    const Descriptor listener(receiveListener(*own), "a filter of system calls");
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
