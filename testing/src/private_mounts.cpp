#include "hox/testing/private_mounts.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace Hox::Testing {

namespace {

void becomeRootOfOwnUsers(uid_t user, gid_t group) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
}

bool leaveSharedMounts() {
    const auto user = geteuid();
    const auto group = getegid();
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return false;
        }
        becomeRootOfOwnUsers(user, group);
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

}  // namespace

bool mountPrivateFolders(const std::vector<std::filesystem::path>& folders) {
    if (!leaveSharedMounts()) {
        return false;
    }
    for (const auto& folder : folders) {
        if (mount("tmpfs", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace Hox::Testing
