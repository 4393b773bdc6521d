#pragma once

#include <spdlog/logger.h>

#include <filesystem>
#include <memory>

#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Capability::Configuration {

/// A new folder for a copy that is being built. The object removes the folder at its path when it
/// is destroyed: the one built there, or the old copy after an exchange.
class ScratchFolder {
public:
    /// Creates the folder, empty; replaces the remains of an interrupted operation. Throws
    /// std::filesystem::filesystem_error.
    ScratchFolder(std::filesystem::path path, std::shared_ptr<spdlog::logger> logger);

    /// Logs a warning for a folder that cannot be removed.
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder(ScratchFolder&&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ScratchFolder& operator=(ScratchFolder&&) = delete;

    /// The path of the folder.
    const std::filesystem::path& path() const { return m_path; }

    /// Returns when everything in the folder is on the disk. Throws
    /// std::filesystem::filesystem_error, also for a write that has failed since the folder was
    /// created.
    void flush() const;

private:
    const std::filesystem::path m_path;
    const std::shared_ptr<spdlog::logger> m_logger;
    Hox::LinuxCppUtil::OwnedFileDescriptor m_descriptor;
};

}  // namespace Hox::Capability::Configuration
