#include <unistd.h>

#include <cstdint>
#include <memory>
#include <system_error>
#include <utility>

#include "conf_keys.h"
#include "directory_exchange.h"
#include "hox/archive/archive.h"
#include "hox/configuration/conf_obstree_handler.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/linutils/remove_tree.h"
#include "system_identity.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;

namespace {

constexpr std::size_t maxPackageSize = 524288;

/// Makes the next package go in force whatever machine it was made for.
constexpr const char* overrideMarker = "/tmp/headend_override_compat_check";

}  // namespace

ConfObstreeHandler::Return<Api::GetSysConfResp> ConfObstreeHandler::readSysConf() const {
    auto response = std::make_unique<Api::GetSysConfResp>();
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Reading sys conf");
    try {
        writePackageIdentity(readSystemIdentity(), m_confPath);
        const auto [bytes, size] = Hox::Archive::packToBuffer(
            Hox::Archive::ArchiveFormat::TarGz, m_confPath, maxPackageSize, true, false);
        const std::unique_ptr<std::uint8_t[]> owned(bytes);
        response->set_sysconfdata(bytes, size);
    } catch (const std::exception& error) {
        return {std::move(response),
                Status(ProtoStatus::INTERNAL,
                       std::string("Unable to pack from filesystem - Error ") + error.what())};
    }
    return {std::move(response), Status()};
}

ConfObstreeHandler::Return<Api::UpdateSysConfResp> ConfObstreeHandler::updateSysConf(
    const Api::UpdateSysConfReq& request) {
    Status status;
    switch (request.update_type().update_type_case()) {
        case Api::UpdateType::kSysConfData:
            status = saveSysConfData(request.update_type().sysconfdata());
            break;
        case Api::UpdateType::kDiscardChanges:
            discardChanges();
            break;
        case Api::UpdateType::kSaveChanges:
            saveChanges();
            break;
        case Api::UpdateType::kClearConfiguration:
            clearSysConfData();
            break;
        case Api::UpdateType::UPDATE_TYPE_NOT_SET:
            status = Status(ProtoStatus::INVALID_ARGUMENT, "Update Type invalid");
    }
    return {std::make_unique<Api::UpdateSysConfResp>(), std::move(status)};
}

Status ConfObstreeHandler::saveSysConfData(const std::string& data) {
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Save Sys conf data");
    const fs::path scratch = makeScratchDirectory();
    Status unpacked = unpack(data, scratch);
    if (!unpacked.isOk()) {
        return unpacked;
    }
    ChangeSetType content;
    Status examined = examinePackage(scratch, content);
    if (!examined.isOk()) {
        Hox::LinuxCppUtil::removeTree(scratch);
        return examined;
    }
    putInForce(scratch);
    announceDiscard();
    m_persistHndlr->applyChangeSet(content, false, false);
    return {};
}

Status ConfObstreeHandler::unpack(const std::string& data, const fs::path& dir) const {
    try {
        // libarchive only reads from the buffer, whose type serves packing as well.
        auto* start = reinterpret_cast<std::uint8_t*>(const_cast<char*>(data.data()));
        Hox::Archive::unpackBuffer({start, data.size()}, dir);
    } catch (const std::exception& error) {
        m_logger->log(Hox::Log::here(), spdlog::level::err,
                      "Unable to unpack to filesystem - Error {}", error.what());
        return {ProtoStatus::INTERNAL,
                std::string("Unable to unpack to filesystem - Error ") + error.what()};
    }
    return {};
}

/// Finds everything that would fail only once the package is in force, when it is too late.
Status ConfObstreeHandler::examinePackage(const fs::path& dir, ChangeSetType& content) const {
    try {
        if (!confIsCompatible(dir)) {
            return {ProtoStatus::INVALID_ARGUMENT,
                    "The configuration file is not compatible with this system"};
        }
        content = m_persistHndlr->nodeDataFile().readNodeData(dir);
        checkSaved(content);
    } catch (const std::exception& error) {
        return {ProtoStatus::FAILED_PRECONDITION, error.what()};
    }
    return {};
}

bool ConfObstreeHandler::confIsCompatible(const fs::path& dir) const {
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

void ConfObstreeHandler::saveChanges() {
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Saving changes");
    notify(StateMonitoring::Api::OK, "Sysconf saved");
    const fs::path scratch = makeScratchDirectory();
    m_persistHndlr->startPersistingObsTree(scratch, true);
    // Nobody may go on writing to that path, which is going to be the old copy's.
    m_persistHndlr->stopPersistingObsTree();
    putInForce(scratch);
}

void ConfObstreeHandler::discardChanges() {
    announceDiscard();
    m_persistHndlr->applyChangeSet(m_persistHndlr->nodeDataFile().readNodeData(m_confPath), false,
                                   false);
}

/// From here on until the next update of a slice its observer hears of changes.
void ConfObstreeHandler::announceDiscard() {
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Discarding unsaved changes");
    notify(StateMonitoring::Api::OK, "Sysconf discard changes");
    HOX_ASSERT(m_persistHndlr.get());
    m_ignoreTreeChanges = false;
}

void ConfObstreeHandler::clearSysConfData() {
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Clear Sys conf data");
    putInForce(makeScratchDirectory());
    discardChanges();
    const fs::path epg = fs::path(m_confPath).parent_path() / "epg";
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Clear EPG data - path: {}", epg.string());
    std::error_code errorCode;
    // The count decides, not the code: a guide that is not there is worth a warning, and what could
    // not be removed goes with the next one.
    if (fs::remove_all(epg, errorCode) == 0) {
        m_logger->log(Hox::Log::here(), spdlog::level::warn, "Failed to clear EPG data - {}",
                      errorCode.message());
    }
}

/// An empty directory beside the saved copy. What an interrupted operation left there ends here.
fs::path ConfObstreeHandler::makeScratchDirectory() const {
    fs::path scratch = m_confPath + ".temp";
    Hox::LinuxCppUtil::removeTree(scratch);
    fs::create_directories(scratch);
    return scratch;
}

/// Makes the scratch directory the saved copy and removes the old one.
void ConfObstreeHandler::putInForce(const fs::path& scratch) const {
    exchangeDirectories(scratch, m_confPath);
    Hox::LinuxCppUtil::removeTree(scratch);
    ::sync();
}

}  // namespace Hox::Capability::Configuration
