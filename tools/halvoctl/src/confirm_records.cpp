#include "confirm_records.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

/// The folder in a variable, empty if it is not set. The timers have another working folder than
/// the user, so it must be absolute.
std::string folderIn(const Surroundings& surroundings, const std::string& variable) {
    auto folder = surroundings.environment(variable);
    if (!folder.empty() && folder.front() != '/') {
        throw CtlError(ExitCode::Usage, variable + " is no absolute path");
    }
    return folder;
}

}  // namespace

std::string stateHome(const Surroundings& surroundings) {
    auto state = folderIn(surroundings, "XDG_STATE_HOME");
    if (!state.empty() || ::geteuid() == 0) {
        return state;
    }
    const auto home = folderIn(surroundings, "HOME");
    if (home.empty()) {
        throw CtlError(ExitCode::Usage, "there is no place for records",
                       "set XDG_STATE_HOME or HOME");
    }
    return home + "/.local/state";
}

std::string confirmFolder(const Surroundings& surroundings) {
    const auto state = stateHome(surroundings);
    return state.empty() ? "/var/lib/halvo-tools/confirm" : state + "/halvo/confirm";
}

std::vector<PendingConfirmation> pendingConfirmations(const Surroundings& surroundings) {
    const auto root = confirmFolder(surroundings);
    std::vector<PendingConfirmation> found;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(root, error), end; !error && entry != end;
         entry.increment(error)) {
        const auto folder = entry->path().string();
        if (auto content = ConfirmRecord::read(folder)) {
            found.push_back({content->id(), folder, std::move(*content)});
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        throw CtlError(ExitCode::Usage, "cannot read " + root + ": " + error.message());
    }
    std::sort(found.begin(), found.end(), [](const auto& one, const auto& other) {
        const auto key = [](const PendingConfirmation& pending) {
            return std::pair(pending.content.reverts_at().seconds(), pending.id);
        };
        return key(one) < key(other);
    });
    return found;
}

std::unique_ptr<ConfirmRecord> openPending(const Surroundings& surroundings, const std::string& id,
                                           std::chrono::milliseconds time) {
    auto wanted = id;
    if (id.empty()) {
        std::string several;
        for (const auto& pending : pendingConfirmations(surroundings)) {
            if (pending.content.kind() != LOG) {
                several += "\n  " + pending.id + " at " + pending.content.endpoint();
                wanted = pending.id;
            }
        }
        if (several.find('\n', 1) != std::string::npos) {
            throw CtlError(ExitCode::Usage, "several changes are pending:" + several);
        }
    }
    if (wanted.empty()) {
        throw CtlError(ExitCode::Usage, "nothing is pending");
    }
    auto record = ConfirmRecord::open(surroundings, wanted, time);
    if (!record) {
        throw CtlError(ExitCode::Usage, "no change \"" + wanted + "\" is pending",
                       "halvoctl conf pending lists all");
    }
    return record;
}

}  // namespace Hox::Ctl
