#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace Hox::Ctl {

/// A user of this machine with his groups.
struct UnixUser {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

/// The user of this number; his name is the number if he has none.
UnixUser userOf(uid_t uid);

/// The user of this name. Throws CtlError if there is none.
UnixUser userNamed(const std::string& name);

/// Whether the user may access the path in this mode, as of access(2): the system decides. Nothing
/// if only root could find that out, and the tool runs as another user than both.
std::optional<bool> mayAccess(const UnixUser& user, const std::string& path, int mode);

}  // namespace Hox::Ctl
