#include "change_runner.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "ctl_error.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "process_start.h"
#include "write_all.h"

namespace Hox::Ctl {

using LinuxCppUtil::OwnedFileDescriptor;

namespace {

[[noreturn]] void fail(int error) {
    throw CtlError(ExitCode::Usage, "the command of --exec cannot be started: " +
                                        std::generic_category().message(error));
}

/// A file in memory, at its start. Unlike a pipe it takes everything before the reader exists.
OwnedFileDescriptor inputFile(const std::string& text) {
    auto file = LinuxCppUtil::ownFileDescriptor(::memfd_create("change", MFD_CLOEXEC));
    if (!file || !writeAll(*file, text) || ::lseek(*file, 0, SEEK_SET) != 0) {
        fail(errno);
    }
    return file;
}

}  // namespace

void ChangeRunner::take(const Change& change, const ServiceModel& /*model*/,
                        const PackedValues& values) {
    const auto input = inputFile(values.json().line(change) + "\n");
    ProcessStart start;
    start.setFile(STDIN_FILENO, *input);
    pid_t child = 0;
    if (const int error = start.start({"/bin/sh", "-c", m_command}, child); error != 0) {
        fail(error);
    }
    const int status = waitForEnd(child);
    if (status != 0) {
        m_note(WIFSIGNALED(status)
                   ? "the command of --exec was ended by signal " + std::to_string(WTERMSIG(status))
                   : "the command of --exec has failed with status " +
                         std::to_string(WEXITSTATUS(status)));
    }
}

}  // namespace Hox::Ctl
