#include "known_calls.h"

#include <fcntl.h>
#include <linux/seccomp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>

namespace Hox::Testing {

namespace {

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

/// Excludes opens that change nothing, or calls on the standard descriptors.
std::vector<sock_filter> bodyFor(const KnownCall& call, FileCalls listed) {
    const auto tell = statement(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
    const auto allow = statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    if (call.isOpen() && listed == FileCalls::Changing) {
        return {loadArgument(call.path + 1), jump(BPF_JSET, writeFlags, 0, 1), tell, allow};
    }
    if (call.isOnDescriptor()) {
        return {loadArgument(0), jump(BPF_JGT, STDERR_FILENO, 0, 1), tell, allow};
    }
    return {tell};
}

}  // namespace

const std::uint32_t writeFlags = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC;

// A table. NOLINTNEXTLINE(readability-function-size)
const std::vector<KnownCall>& knownCalls() {
    static const std::vector<KnownCall> calls = {
#ifdef SYS_mkdir  // not on newer architectures, which only have the forms with "at"
        {"mkdir", SYS_mkdir, CallKind::Path, 0},
        {"rmdir", SYS_rmdir, CallKind::Path, 0},
        {"unlink", SYS_unlink, CallKind::Path, 0},
        {"rename", SYS_rename, CallKind::Path, 0},
        {"link", SYS_link, CallKind::Path, 0},
        {"symlink", SYS_symlink, CallKind::Path, 1},
        {"mknod", SYS_mknod, CallKind::Path, 0},
        {"creat", SYS_creat, CallKind::Path, 0},
        {"open", SYS_open, CallKind::Open, 0},
        {"chmod", SYS_chmod, CallKind::Path, 0},
        {"chown", SYS_chown, CallKind::Path, 0},
        {"lchown", SYS_lchown, CallKind::Path, 0},
        {"utime", SYS_utime, CallKind::Path, 0},
        {"utimes", SYS_utimes, CallKind::Path, 0},
        {"futimesat", SYS_futimesat, CallKind::PathAt, 1},
        {"stat", SYS_stat, CallKind::Looking, 0},
        {"lstat", SYS_lstat, CallKind::Looking, 0},
        {"access", SYS_access, CallKind::Looking, 0},
        {"readlink", SYS_readlink, CallKind::Looking, 0},
        {"getdents", SYS_getdents, CallKind::Reading, 0},
#endif
#ifdef SYS_renameat
        {"renameat", SYS_renameat, CallKind::PathAt, 1},
#endif
        {"mkdirat", SYS_mkdirat, CallKind::PathAt, 1},
        {"unlinkat", SYS_unlinkat, CallKind::PathAt, 1},
        {"renameat2", SYS_renameat2, CallKind::PathAt, 1},
        {"linkat", SYS_linkat, CallKind::PathAt, 1},
        {"symlinkat", SYS_symlinkat, CallKind::PathAt, 2},
        {"mknodat", SYS_mknodat, CallKind::PathAt, 1},
        {"openat", SYS_openat, CallKind::OpenAt, 1},
        {"truncate", SYS_truncate, CallKind::Path, 0},
        {"fchmodat", SYS_fchmodat, CallKind::PathAt, 1},
        {"fchownat", SYS_fchownat, CallKind::PathAt, 1},
        {"utimensat", SYS_utimensat, CallKind::PathAt, 1},
        {"setxattr", SYS_setxattr, CallKind::Path, 0},
        {"lsetxattr", SYS_lsetxattr, CallKind::Path, 0},
        {"removexattr", SYS_removexattr, CallKind::Path, 0},
        {"lremovexattr", SYS_lremovexattr, CallKind::Path, 0},
        {"fsetxattr", SYS_fsetxattr, CallKind::Changing, 0},
        {"fremovexattr", SYS_fremovexattr, CallKind::Changing, 0},
        {"ftruncate", SYS_ftruncate, CallKind::Changing, 0},
        {"fallocate", SYS_fallocate, CallKind::Changing, 0},
        {"fchmod", SYS_fchmod, CallKind::Changing, 0},
        {"fchown", SYS_fchown, CallKind::Changing, 0},
        {"write", SYS_write, CallKind::Changing, 0},
        {"writev", SYS_writev, CallKind::Changing, 0},
        {"pwrite64", SYS_pwrite64, CallKind::Changing, 0},
        {"pwritev", SYS_pwritev, CallKind::Changing, 0},
        {"pwritev2", SYS_pwritev2, CallKind::Changing, 0},
        {"sendfile", SYS_sendfile, CallKind::Changing, 0},
        {"syncfs", SYS_syncfs, CallKind::Changing, 0, false},
        {"fsync", SYS_fsync, CallKind::Changing, 0},
        {"fdatasync", SYS_fdatasync, CallKind::Changing, 0},
        {"sync", SYS_sync, CallKind::Whole, 0, false},
        {"newfstatat", SYS_newfstatat, CallKind::LookingAt, 1},
        {"statx", SYS_statx, CallKind::LookingAt, 1},
        {"faccessat", SYS_faccessat, CallKind::LookingAt, 1},
        {"faccessat2", SYS_faccessat2, CallKind::LookingAt, 1},
        {"readlinkat", SYS_readlinkat, CallKind::LookingAt, 1},
        {"statfs", SYS_statfs, CallKind::Looking, 0},
        {"chdir", SYS_chdir, CallKind::Looking, 0},
        {"getxattr", SYS_getxattr, CallKind::Looking, 0},
        {"lgetxattr", SYS_lgetxattr, CallKind::Looking, 0},
        {"listxattr", SYS_listxattr, CallKind::Looking, 0},
        {"llistxattr", SYS_llistxattr, CallKind::Looking, 0},
        {"fgetxattr", SYS_fgetxattr, CallKind::Reading, 0},
        {"flistxattr", SYS_flistxattr, CallKind::Reading, 0},
        {"fstat", SYS_fstat, CallKind::Reading, 0},
        {"fstatfs", SYS_fstatfs, CallKind::Reading, 0},
        {"fchdir", SYS_fchdir, CallKind::Reading, 0},
        {"flock", SYS_flock, CallKind::Reading, 0},
        {"fcntl", SYS_fcntl, CallKind::Reading, 0},
        {"ioctl", SYS_ioctl, CallKind::Reading, 0},
        {"dup", SYS_dup, CallKind::Reading, 0},
        {"lseek", SYS_lseek, CallKind::Reading, 0},
        {"read", SYS_read, CallKind::Reading, 0},
        {"readv", SYS_readv, CallKind::Reading, 0},
        {"pread64", SYS_pread64, CallKind::Reading, 0},
        {"getdents64", SYS_getdents64, CallKind::Reading, 0},
        {"close", SYS_close, CallKind::Reading, 0},
    };
    return calls;
}

std::vector<sock_filter> filterFor(FileCalls listed) {
    std::vector<sock_filter> program = {
        statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const auto& call : knownCalls()) {
        const bool isListed =
            listed == FileCalls::All || (listed != FileCalls::None && !call.onlyLooks());
        if (isListed || !call.isMade) {
            const auto body = bodyFor(call, listed);
            program.push_back(jump(BPF_JEQ, static_cast<std::size_t>(call.number), 0, body.size()));
            program.insert(program.end(), body.begin(), body.end());
        }
    }
    program.push_back(statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    return program;
}

}  // namespace Hox::Testing
