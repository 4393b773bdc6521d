#include "unix_user.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

UnixUser fromEntry(const ::passwd& entry) {
    UnixUser user{entry.pw_name, entry.pw_uid, entry.pw_gid, {}};
    int count = 64;
    user.groups.resize(static_cast<std::size_t>(count));
    while (::getgrouplist(entry.pw_name, entry.pw_gid, user.groups.data(), &count) < 0) {
        user.groups.resize(static_cast<std::size_t>(count));
    }
    user.groups.resize(static_cast<std::size_t>(count));
    return user;
}

/// What the child does: it becomes the user and asks the system. Only system calls, because other
/// threads may have held locks at the fork.
[[noreturn]] void askAs(const UnixUser& user, const std::string& path, int mode) {
    const bool isUser = ::syscall(SYS_setgroups, user.groups.size(), user.groups.data()) == 0 &&
                        ::syscall(SYS_setresgid, user.gid, user.gid, user.gid) == 0 &&
                        ::syscall(SYS_setresuid, user.uid, user.uid, user.uid) == 0;
    if (!isUser) {
        ::_exit(2);
    }
    ::_exit(::faccessat(AT_FDCWD, path.c_str(), mode, 0) == 0 ? 0 : 1);
}

}  // namespace

UnixUser userOf(uid_t uid) {
    const auto* const entry = ::getpwuid(uid);
    return entry == nullptr ? UnixUser{std::to_string(uid), uid, uid, {}} : fromEntry(*entry);
}

UnixUser userNamed(const std::string& name) {
    const auto* const entry = ::getpwnam(name.c_str());
    if (entry == nullptr) {
        throw CtlError(ExitCode::Usage, "there is no user \"" + name + "\"");
    }
    return fromEntry(*entry);
}

std::optional<bool> mayAccess(const UnixUser& user, const std::string& path, int mode) {
    if (user.uid == ::geteuid()) {
        return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
    }
    if (::geteuid() != 0) {
        return std::nullopt;
    }
    const auto child = ::fork();
    if (child == 0) {
        askAs(user, path, mode);
    }
    int status = 0;
    if (child < 0) {
        return std::nullopt;
    }
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) {
        return std::nullopt;
    }
    return WEXITSTATUS(status) == 0;
}

}  // namespace Hox::Ctl
