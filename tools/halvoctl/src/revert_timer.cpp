#include "revert_timer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>
#include <utility>

#include "child_process.h"
#include "ctl_error.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "report_table.h"

namespace Hox::Ctl {

namespace {

using LinuxCppUtil::OwnedFileDescriptor;

/// This program, also if it was found on the path.
std::string ownProgram() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

bool isSystemdManager() {
    std::error_code ignored;
    return std::filesystem::is_directory("/run/systemd/system", ignored);
}

std::string millisecondsText(std::chrono::milliseconds time) {
    return std::to_string(time.count()) + "ms";
}

/// The file whose lock the process holds as long as it lives.
OwnedFileDescriptor openAliveFile(const std::string& folder) {
    constexpr mode_t rights = 0600;
    return LinuxCppUtil::ownFileDescriptor(
        ::open((folder + "/timer").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, rights));
}

}  // namespace

RevertTimer::RevertTimer(std::string id, std::string folder)
    : m_id(std::move(id)), m_folder(std::move(folder)) {}

std::string RevertTimer::unit(const std::string& kind) const {
    return "halvo-confirm-" + m_id + kind;
}

void RevertTimer::start(const Surroundings& surroundings, std::chrono::milliseconds time) const {
    if (!startUnit(surroundings, time)) {
        startProcess(time);
    }
}

bool RevertTimer::startUnit(const Surroundings& surroundings,
                            std::chrono::milliseconds time) const {
    if (!isSystemdManager()) {
        return false;
    }
    return runQuietly({"systemd-run", "--quiet", "--no-ask-password", "--collect",
                       "--on-active=" + millisecondsText(time),
                       "--timer-property=AccuracySec=100ms", "--unit=" + unit(""),
                       "--uid=" + std::to_string(::geteuid()),
                       "--setenv=XDG_STATE_HOME=" + stateHome(surroundings), ownProgram(), "conf",
                       "rollback", m_id, "--auto"}) == 0;
}

void RevertTimer::startProcess(std::chrono::milliseconds time) const {
    const auto alive = openAliveFile(m_folder);
    if (!alive || ::flock(*alive, LOCK_EX) != 0) {
        throw CtlError(ExitCode::Usage, "cannot write " + m_folder + "/timer");
    }
    startDetached(
        {ownProgram(), "conf", "rollback", m_id, "--auto", "--after", millisecondsText(time)},
        *alive);
}

bool RevertTimer::isThere() const {
    const auto alive = openAliveFile(m_folder);
    if (alive && ::flock(*alive, LOCK_SH | LOCK_NB) != 0) {
        return true;
    }
    return isSystemdManager() &&
           runQuietly({"systemctl", "is-active", "--quiet", unit(".timer"), unit(".service")}) == 0;
}

void RevertTimer::stop() const {
    // A process notices by itself that the record is gone.
    if (isSystemdManager()) {
        runQuietly({"systemctl", "--no-ask-password", "stop", unit(".timer")});
    }
}

PendingState pendingStateOf(const PendingConfirmation& pending,
                            std::chrono::system_clock::time_point now) {
    if (!RevertTimer(pending.id, pending.folder).isThere()) {
        return EXPIRED;
    }
    return timeOf(pending.content.reverts_at()) > now ? WAITING : REVERTING;
}

void keepWithTimer(ConfirmRecord& record, const Confirmation& content,
                   const Surroundings& surroundings, std::chrono::milliseconds time) {
    record.keep(content);
    try {
        RevertTimer(record.id(), record.folder()).start(surroundings, time);
    } catch (const CtlError&) {
        record.remove();
        throw;
    }
}

}  // namespace Hox::Ctl
