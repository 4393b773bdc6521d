#include "saved_copy.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "conf_keys.h"
#include "directory_exchange.h"
#include "hox/archive/archive.h"
#include "hox/archive/error/archive_error.h"
#include "hox/archive/foreign_archive.h"
#include "hox/configuration/package_rules.h"
#include "hox/cpputil/error/initialization_error.h"
#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/cpputil/string/string_utils.h"
#include "hox/linutils/files.h"
#include "hox/observer_tree/path_manipulation.h"
#include "state_id.h"
#include "system_identity.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {

using Hox::LinuxCppUtil::OwnedFileDescriptor;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;

namespace {

/// A value is in a file below the folders of its key.
constexpr Hox::Archive::ForeignLimits packageLimits{maxPackageEntries, maxPackageContent,
                                                    maxKeyComponents + 1};
constexpr const char* valueFile = "/data";

/// Locks the parent folder: the folder of the saved copy is another one after each exchange.
OwnedFileDescriptor lock(const fs::path& folder) {
    Hox::LinuxCppUtil::makeFolders(folder);
    auto descriptor = Hox::LinuxCppUtil::ownFileDescriptor(
        ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor == nullptr || ::flock(*descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            throw Hox::CppUtil::InitializationError(
                "Another service uses the configuration folder " + folder.string(), __FILE__,
                __LINE__);
        }
        throw fs::filesystem_error("cannot lock", folder,
                                   std::error_code(errno, std::generic_category()));
    }
    return descriptor;
}

/// Only the file of a value may be deeper than its key.
void checkDepth(const std::string& name) {
    const auto slashes = std::count(name.begin(), name.end(), '/');
    if (static_cast<std::size_t>(slashes) >= maxKeyComponents &&
        !Hox::CppUtil::str_ends_with(valueFile, name)) {
        throw Hox::Archive::ArchiveError("Entry with a name of too many components", __FILE__,
                                         __LINE__);
    }
}

void writeEntries(const std::vector<Hox::Archive::ForeignEntry>& entries, const fs::path& dir) {
    for (const auto& entry : entries) {
        const fs::path path = dir / entry.name;
        Hox::LinuxCppUtil::makeFolders(entry.isFolder ? path : path.parent_path());
        if (!entry.isFolder) {
            Hox::LinuxCppUtil::writeFile(path, entry.content);
        }
    }
}

/// Throws InvalidArgumentError for a key that no service could write.
void checkWritable(const ChangeSetType& content) {
    for (const auto& saved : content) {
        const std::string refusal = isLoaded(saved.first) ? whyNotWritable(saved.first) : "";
        if (!refusal.empty()) {
            throw Hox::CppUtil::InvalidArgumentError(refusal, __FILE__, __LINE__);
        }
    }
}

/// Throws PathError where the tree would throw it later, when it is too late.
void checkLoadable(const ChangeSetType& content) {
    const Hox::ObserverTree::PathManipulation path;
    for (const auto& saved : content) {
        if (isLoaded(saved.first) && !path.isKey(saved.first)) {
            path.parsePath(Hox::ObserverTree::PathType::Key, saved.first);
        }
    }
}

}  // namespace

SavedCopy::SavedCopy(fs::path folder)
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_confPath(std::move(folder)),
      m_lock(lock(fs::absolute(m_confPath).parent_path())) {}

std::unique_ptr<ScratchFolder> SavedCopy::makeScratch() const {
    return std::make_unique<ScratchFolder>(m_confPath.string() + ".temp", m_logger);
}

Status SavedCopy::unpack(const std::string& package, const ScratchFolder& scratch) const {
    try {
        const auto entries = Hox::Archive::readForeignArchive(package, packageLimits);
        for (const auto& entry : entries) {
            checkDepth(entry.name);
        }
        writeEntries(entries, scratch.path());
    } catch (const std::exception& error) {
        m_logger->log(Hox::Log::here(), spdlog::level::err,
                      "Unable to unpack to filesystem - Error {}", error.what());
        return {ProtoStatus::INTERNAL,
                std::string("Unable to unpack to filesystem - Error ") + error.what()};
    }
    return {};
}

/// Finds all errors that would occur only after the package is in force, when it is too late.
Status SavedCopy::examine(const ScratchFolder& scratch, ChangeSetType& content) const {
    if (!confIsCompatible(scratch.path())) {
        return {ProtoStatus::INVALID_ARGUMENT,
                "The configuration file is not compatible with this system"};
    }
    content = m_files.readNodeData(scratch.path());
    checkLoadable(content);
    checkWritable(content);
    mend(content);
    return {};
}

bool SavedCopy::confIsCompatible(const fs::path& dir) const {
    const SystemIdentity system = readSystemIdentity();
    const SystemIdentity package = readPackageIdentity(dir);
    if (fs::exists(fs::status(overrideMarker)) || system == package) {
        return true;
    }
    m_logger->log(Hox::Log::here(), spdlog::level::info,
                  "Incompatible configuration files. System type {} configuration file type {}",
                  describeIdentity(system), describeIdentity(package));
    return false;
}

void SavedCopy::putInForce(std::unique_ptr<ScratchFolder> scratch) const {
    // Otherwise all files of the new copy could be empty after a loss of power.
    scratch->flush();
    exchangeDirectories(scratch->path(), m_confPath);
    scratch.reset();
    ::sync();
}

ChangeSetType SavedCopy::read() const {
    ChangeSetType content = m_files.readNodeData(m_confPath);
    mend(content);
    return content;
}

void SavedCopy::mend(ChangeSetType& content) const {
    checkLoadable(content);
    for (auto& [key, changes] : content) {
        const std::string refusal = isLoaded(key) ? whyNotWritable(key) : std::string();
        if (!refusal.empty()) {
            m_logger->log(Hox::Log::here(), spdlog::level::warn,
                          "Loading a value that no package may hold. {}", refusal);
        } else if (isStateIdKey(key) && !isStateId(*changes.at(0).current)) {
            m_logger->log(Hox::Log::here(), spdlog::level::warn,
                          "The saved state id of {} cannot be read, the slice gets a fresh one",
                          key.substr(0, sliceRootLength(key)));
            changes.at(0).current = stateIdToValue(newStateId());
        }
    }
}

std::string SavedCopy::pack() const {
    writePackageIdentity(readSystemIdentity(), m_confPath);
    const auto [bytes, size] = Hox::Archive::packToBuffer(Hox::Archive::ArchiveFormat::TarGz,
                                                          m_confPath, maxPackageSize, true, false);
    const std::unique_ptr<std::uint8_t[]> owned(bytes);
    return {reinterpret_cast<const char*>(bytes), size};
}

}  // namespace Hox::Capability::Configuration
