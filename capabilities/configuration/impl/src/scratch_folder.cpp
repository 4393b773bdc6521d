#include "scratch_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "hox/cpputil/log/source_location.h"
#include "hox/linutils/files.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {

namespace {

void require(bool condition, const char* what, const fs::path& path) {
    if (!condition) {
        throw fs::filesystem_error(what, path, std::error_code(errno, std::generic_category()));
    }
}

void removeOrWarn(const fs::path& path, spdlog::logger& logger) noexcept {
    try {
        Hox::LinuxCppUtil::removeFolder(path);
    } catch (const std::exception& error) {
        logger.log(Hox::Log::here(), spdlog::level::warn, "Left over: {}", error.what());
    }
}

}  // namespace

ScratchFolder::ScratchFolder(fs::path path, std::shared_ptr<spdlog::logger> logger)
    : m_path(std::move(path)), m_logger(std::move(logger)) {
    Hox::LinuxCppUtil::removeFolder(m_path);
    try {
        Hox::LinuxCppUtil::makeFolders(m_path);
        // Opened now, so that a flush reports every failed write since then.
        m_descriptor = Hox::LinuxCppUtil::ownFileDescriptor(
            ::open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        require(m_descriptor != nullptr, "cannot open", m_path);
    } catch (...) {
        removeOrWarn(m_path, *m_logger);
        throw;
    }
}

ScratchFolder::~ScratchFolder() {
    removeOrWarn(m_path, *m_logger);
}

void ScratchFolder::flush() const {
    require(::syncfs(*m_descriptor) == 0, "cannot flush to the disk", m_path);
}

}  // namespace Hox::Capability::Configuration
