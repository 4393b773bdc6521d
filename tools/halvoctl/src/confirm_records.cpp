#include "confirm_records.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace Hox::Ctl {

namespace {

std::string recordFolder(const std::function<std::string(const std::string&)>& environment) {
    const auto state = environment("XDG_STATE_HOME");
    if (!state.empty()) {
        return state + "/halvo/confirm";
    }
    return ::geteuid() == 0 ? "/var/lib/halvo-tools/confirm"
                            : environment("HOME") + "/.local/state/halvo/confirm";
}

}  // namespace

std::vector<PendingConfirmation> pendingConfirmations(
    const std::function<std::string(const std::string&)>& environment) {
    std::vector<PendingConfirmation> pending;
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(recordFolder(environment), error)) {
        if (entry.is_directory(error)) {
            pending.push_back({entry.path().filename().string(), entry.path().string()});
        }
    }
    std::sort(pending.begin(), pending.end(),
              [](const auto& one, const auto& other) { return one.id < other.id; });
    return pending;
}

}  // namespace Hox::Ctl
