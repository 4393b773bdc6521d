#include <spdlog/logger.h>

#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "hox/configuration/conf_obstree_handler.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "saved_copy.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTree;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;

ConfObstreeHandler::Return<Api::GetSysConfResp> ConfObstreeHandler::readSysConf() const {
    auto response = std::make_unique<Api::GetSysConfResp>();
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Reading sys conf");
    try {
        response->set_sysconfdata(m_savedCopy->pack());
    } catch (const std::exception& error) {
        return {std::move(response),
                Status(ProtoStatus::INTERNAL,
                       std::string("Unable to pack from filesystem - Error ") + error.what())};
    }
    return {std::move(response), Status()};
}

ConfObstreeHandler::Return<Api::UpdateSysConfResp> ConfObstreeHandler::updateSysConf(
    const Api::UpdateSysConfReq& request, const DataTree& tree) {
    Status status;
    switch (request.update_type().update_type_case()) {
        case Api::UpdateType::kSysConfData:
            status = saveSysConfData(request.update_type().sysconfdata());
            break;
        case Api::UpdateType::kDiscardChanges:
            status = discardChanges();
            break;
        case Api::UpdateType::kSaveChanges:
            status = saveChanges(tree);
            break;
        case Api::UpdateType::kClearConfiguration:
            status = clearSysConfData();
            break;
        case Api::UpdateType::UPDATE_TYPE_NOT_SET:
            status = Status(ProtoStatus::INVALID_ARGUMENT, "Update Type invalid");
    }
    return {std::make_unique<Api::UpdateSysConfResp>(), std::move(status)};
}

/// Logs and returns an error of the file system that occurred before anything changed.
Status ConfObstreeHandler::refused(const char* operation, const std::exception& error) const {
    m_logger->log(Hox::Log::here(), spdlog::level::err, "{} failed - {}", operation, error.what());
    return {ProtoStatus::FAILED_PRECONDITION, error.what()};
}

Status ConfObstreeHandler::saveSysConfData(const std::string& data) {
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Save Sys conf data");
    ChangeSetType content;
    try {
        auto scratch = m_savedCopy->makeScratch();
        Status status = m_savedCopy->unpack(data, *scratch);
        if (status.isOk()) {
            status = m_savedCopy->examine(*scratch, content);
        }
        if (!status.isOk()) {
            return status;
        }
        m_savedCopy->putInForce(std::move(scratch));
    } catch (const std::exception& error) {
        return refused("Import", error);
    }
    replaceWorkingCopy(std::move(content));
    return {};
}

Status ConfObstreeHandler::saveChanges(const DataTree& tree) {
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Saving changes");
    notify(StateMonitoring::Api::OK, "Sysconf saved");
    try {
        auto scratch = m_savedCopy->makeScratch();
        m_persistHndlr->writeAll(tree, scratch->path());
        m_savedCopy->putInForce(std::move(scratch));
    } catch (const std::exception& error) {
        if (m_hasUnsavedChanges) {
            notify(StateMonitoring::Api::WARN, "Sysconf cap update");
        }
        return refused("Save", error);
    }
    m_hasUnsavedChanges = false;
    return {};
}

Status ConfObstreeHandler::discardChanges() {
    ChangeSetType content;
    try {
        content = m_savedCopy->read();
    } catch (const std::exception& error) {
        return refused("Discard", error);
    }
    replaceWorkingCopy(std::move(content));
    return {};
}

/// From here until the next update of any slice, the observers of slices get changes.
void ConfObstreeHandler::replaceWorkingCopy(ChangeSetType content) {
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Discarding unsaved changes");
    notify(StateMonitoring::Api::OK, "Sysconf discard changes");
    HOX_ASSERT(m_persistHndlr.get());
    m_hasUnsavedChanges = false;
    m_ignoreTreeChanges = false;
    m_persistHndlr->applyChangeSet(std::move(content), false, false);
}

Status ConfObstreeHandler::clearSysConfData() {
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Clear Sys conf data");
    try {
        m_savedCopy->putInForce(m_savedCopy->makeScratch());
    } catch (const std::exception& error) {
        return refused("Clear", error);
    }
    replaceWorkingCopy({});
    const fs::path epg = m_savedCopy->folder().parent_path() / "epg";
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Clear EPG data - path: {}", epg.string());
    std::error_code errorCode;
    // The count decides, not the code: a missing guide is worth a warning, and entries that could
    // not be removed are removed next time.
    if (fs::remove_all(epg, errorCode) == 0) {
        m_logger->log(Hox::Log::here(), spdlog::level::warn, "Failed to clear EPG data - {}",
                      errorCode.message());
    }
    return {};
}

}  // namespace Hox::Capability::Configuration
