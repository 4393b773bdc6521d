#include "hox/configuration/conf_node_data_hndlr.h"

#include <google/protobuf/wrappers.pb.h>
#include <spdlog/logger.h>

#include <utility>

#include "conf_observe_struct.h"
#include "hox/configuration/storable_key.h"
#include "hox/cpputil/error/error.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "json_change_set.h"
#include "store_connection.h"
#include "store_wait.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::StoreNodeDataReturn;
using Hox::ObserverTree::UnaryOps;

namespace {

/// A text with data of the store is cut in the log, to this number of bytes.
constexpr std::size_t longestText = 2000;

Api::ConfId confId(const std::string& nodeType, const std::string& nodeId,
                   const std::string& capabilityId) {
    Api::ConfId id;
    id.set_nodetype(nodeType);
    id.set_nodeid(nodeId);
    id.set_capabilityid(capabilityId);
    return id;
}

/// Empty if the changes have none: also if the whole slice is gone.
std::string stateIdIn(const ChangeSetType& changes) {
    const auto found = changes.find(stateIdKey);
    const bool hasValue = found != changes.end() && found->second.front().current;
    return hasValue ? found->second.front().current->get<google::protobuf::StringValue>().value()
                    : std::string();
}

}  // namespace

void ConfNodeDataHndlr::Slices::observed(const Api::ConfId& slice, const std::string& stateId) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_slices[slice.SerializeAsString()].stateId = stateId;
}

void ConfNodeDataHndlr::Slices::stored(const Api::ConfId& slice, const std::string& stateId) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto& state = m_slices[slice.SerializeAsString()];
    state.stateId = stateId;
    ++state.storeCount;
}

void ConfNodeDataHndlr::Slices::refused(const Api::ConfId& slice) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_slices[slice.SerializeAsString()].refusals;
}

SliceState ConfNodeDataHndlr::Slices::get(const Api::ConfId& slice) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_slices.find(slice.SerializeAsString());
    return found != m_slices.end() ? found->second : SliceState();
}

ConfNodeDataHndlr::ConfNodeDataHndlr(std::shared_ptr<ProxyTree> confProxy,
                                     const std::string& address, std::function<bool()> isEnding)
    : m_logger(Hox::Log::getLogsystem()->getLogger("ConfNodeDataHndlr")),
      m_confProxy(std::move(confProxy)),
      m_storeName("the central data store at " + address),
      m_isEnding(std::move(isEnding)) {}

StoreNodeDataReturn ConfNodeDataHndlr::storeNodeData(const std::string& lastStateId,
                                                     const std::string& nodeType,
                                                     const std::string& nodeId,
                                                     const std::string& capabilityId,
                                                     const ChangeSetType& changes, bool isPatch) {
    Api::UpdateCapConfReq request;
    *request.mutable_confid() = confId(nodeType, nodeId, capabilityId);
    request.set_lastcapconfstateid(lastStateId);
    request.set_ispatch(isPatch);
    *request.mutable_capconfchangeset() = changeSetToJson(changes);
    if (request.capconfchangeset().node_change_map().empty()) {
        return {Status(ProtoStatus::ALREADY_EXISTS, ""), ""};
    }
    m_logger->log(Hox::Log::here(), spdlog::level::debug, "Connecting to central data store");
    StoreWait wait(m_logger, m_storeName, m_isEnding);
    if (!StoreConnection::await(*m_confProxy, wait, StoreConnection::neededWithin)) {
        return {Status(ProtoStatus::UNAVAILABLE, "The process is about to end"), ""};
    }
    m_logger->log(Hox::Log::here(), spdlog::level::debug, "Connected to central data store");
    return send(request);
}

StoreNodeDataReturn ConfNodeDataHndlr::send(const Api::UpdateCapConfReq& request) {
    StoreWait wait(m_logger, "the answer of " + m_storeName, m_isEnding);
    Api::UpdateCapConfResp response;
    auto status = m_confProxy->callUnary(StoreConnection::functionAddress, UnaryOps::UPDATE,
                                         request, response, [&wait] { return wait.mustEnd(); });
    if (status.isOk()) {
        m_slices.stored(request.confid(), response.capconfstateid());
    } else if (status.statusCode() == ProtoStatus::FAILED_PRECONDITION) {
        m_slices.refused(request.confid());
    }
    return {std::move(status), response.capconfstateid()};
}

std::any ConfNodeDataHndlr::observeNodeData(const std::string& lastStateId,
                                            const std::string& nodeType, const std::string& nodeId,
                                            const std::string& capabilityId, Callback callback) {
    Api::ObserveCapConfReq request;
    const auto slice = confId(nodeType, nodeId, capabilityId);
    *request.mutable_confid() = slice;
    m_slices.observed(slice, lastStateId);
    const ConfObserveStruct::Surroundings surroundings{
        m_logger, m_confProxy, m_storeName, [this, slice] { return m_slices.get(slice); },
        m_isEnding};
    return std::make_shared<ConfObserveStruct>(
        surroundings, std::move(request),
        [this, slice, callback = std::move(callback)](const ChangeSetType& changes,
                                                      const Status& status) {
            deliver(slice, changes, status, callback);
        });
}

void ConfNodeDataHndlr::deliver(const Api::ConfId& slice, const ChangeSetType& changes,
                                const Status& status, const Callback& callback) {
    if (!status.isOk()) {
        if (status.statusCode() != ProtoStatus::ALREADY_EXISTS &&
            status.statusCode() != ProtoStatus::CANCELLED) {
            m_logger->log(Hox::Log::here(), spdlog::level::err, "{} refuses to be observed: {} {}",
                          m_storeName, static_cast<int>(status.statusCode()),
                          status.errorMessage().substr(0, longestText));
        }
        callback({}, status);
        return;
    }
    ChangeSetType converted;
    std::string stateId;
    try {
        converted = changeSetFromJson(changes);
        stateId = stateIdIn(converted);
    } catch (const Hox::Error& error) {
        m_logger->log(Hox::Log::here(), spdlog::level::err,
                      "Content of {} left out, nothing is changed: {}", m_storeName,
                      std::string(error.what()).substr(0, longestText));
        callback({}, Status(ProtoStatus::FAILED_PRECONDITION, error.what()));
        return;
    }
    m_slices.observed(slice, stateId);  // first: the callback may store something
    callback(std::move(converted), status);
}

}  // namespace Hox::Capability::Configuration
