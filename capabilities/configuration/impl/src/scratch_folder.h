#pragma once

#include <spdlog/logger.h>

#include <filesystem>
#include <memory>

#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Capability::Configuration {

/// A new folder for a copy in the making. Whatever lies at its path goes with the object: what was
/// made there, or the old copy that has changed places with it.
class ScratchFolder {
public:
    /// Makes the folder, empty, in place of what an interrupted operation has left there. Throws
    /// std::filesystem::filesystem_error.
    ScratchFolder(std::filesystem::path path, std::shared_ptr<spdlog::logger> logger);

    /// What cannot be removed is a warning.
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder(ScratchFolder&&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ScratchFolder& operator=(ScratchFolder&&) = delete;

    /// Where the folder is.
    const std::filesystem::path& path() const { return m_path; }

    /// Returns once everything in the folder is on the disk. Throws
    /// std::filesystem::filesystem_error, also for a write since the folder was made that has
    /// failed in the meantime.
    void flush() const;

private:
    const std::filesystem::path m_path;
    const std::shared_ptr<spdlog::logger> m_logger;
    Hox::LinuxCppUtil::OwnedFileDescriptor m_descriptor;
};

}  // namespace Hox::Capability::Configuration
