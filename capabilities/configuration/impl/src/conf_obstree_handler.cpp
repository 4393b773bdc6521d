#include "hox/configuration/conf_obstree_handler.h"

#include <google/protobuf/util/time_util.h>
#include <spdlog/logger.h>

#include <chrono>
#include <cstdint>
#include <utility>

#include "conf_keys.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "saved_copy.h"
#include "slice_observers.h"
#include "slice_update.h"
#include "state_id.h"
#include "state_monitoring.pb.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTree;
using Hox::ObserverTree::ObserverCallback;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;

namespace {

constexpr const char* dataAddress = "/sys/conf/.data.";
constexpr const char* readAddress = "/.rcc.";
constexpr const char* observeAddress = "/sys/.conf.";

/// Whether the request is based on the slice's state. A slice without a state id accepts any
/// request.
bool holdsLastStateId(const Api::UpdateCapConfReq& request, const std::string& root,
                      const DataTree& tree) {
    const auto stateId = tree.find(root + stateIdKey);
    return stateId == tree.end() || holdsStateId(*stateId->second, request.lastcapconfstateid());
}

std::int64_t nanosecondsSinceEpoch() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

}  // namespace

ConfObstreeHandler::ConfObstreeHandler(Hox::ObserverTree::ObserverTree& tree,
                                       std::unique_ptr<std::unique_lock<std::mutex>>& lock,
                                       std::shared_ptr<std::mutex> capabilityMutex,
                                       std::string confPath, std::string serviceId)
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_tree(tree),
      m_savedCopy(std::make_unique<SavedCopy>(std::move(confPath))),
      m_persistHndlr(std::make_unique<Hox::ObserverTree::PersistenceHndlr>(
          tree, lock, std::string(), std::string(), std::string(), "/sys/conf/.*")),
      m_serviceId(std::move(serviceId)),
      m_sliceObservers(std::make_unique<SliceObservers>(
          std::move(capabilityMutex),
          [this](const Api::ObserveCapConfReq& request, const ObserverCallback& callback) {
              greet(request, callback);
          })) {
    m_persistHndlr->init(false, m_savedCopy->folder(),
                         [this](ChangeSetType& content) { m_savedCopy->mend(content); });
}

ConfObstreeHandler::~ConfObstreeHandler() = default;

void ConfObstreeHandler::setStateTree(
    std::shared_ptr<Hox::ObserverTree::GrpcProxyObserverTree> stateTree) {
    m_stateTree = std::move(stateTree);
}

void ConfObstreeHandler::registerObsTreeHandlers() {
    m_tree.registerUnaryOpHandler<UnaryOps::UPDATE, Api::UpdateCapConfReq, Api::UpdateCapConfResp>(
        confRoot, [this](Api::UpdateCapConfReq&& request, DataTree& tree) {
            return updateCapConf(request, tree);
        });
    m_tree.registerUnaryOpHandler<UnaryOps::READ, Api::GetSysConfReq, Api::GetSysConfResp>(
        dataAddress, [this](const Api::GetSysConfReq& /*request*/, DataTree& /*tree*/) {
            return readSysConf();
        });
    m_tree.registerUnaryOpHandler<UnaryOps::UPDATE, Api::UpdateSysConfReq, Api::UpdateSysConfResp>(
        dataAddress, [this](const Api::UpdateSysConfReq& request, DataTree& tree) {
            return updateSysConf(request, tree);
        });
    m_tree.registerNewObserverHandler<Api::ObserveCapConfReq>(
        confRoot, [this](const Api::ObserveCapConfReq& request, const ObserverCallback& callback) {
            m_sliceObservers->arrive(request, callback);
        });
    m_tree.registerObserverGoneHandler<Api::ObserveCapConfReq>(
        confRoot, [this](const Api::ObserveCapConfReq& request, const ObserverCallback& callback) {
            m_sliceObservers->leave(request, callback);
        });
    m_tree.registerUnaryOpHandler<UnaryOps::READ, Api::ReadCapConfReq, Api::ReadCapConfResp>(
        readAddress, [this](const Api::ReadCapConfReq& request, DataTree& tree) {
            return readCapConf(request, tree);
        });
    m_tree.registerDefaultObserveHandler(observeAddress);
}

void ConfObstreeHandler::addObservers() {
    Hox::ObserverTree::ObserveReq request;
    request.set_key_pattern(std::string(confRoot) + "/**");
    m_confObserveHandle = m_tree.observe<Hox::ObserverTree::ObserveReq>(
        observeAddress, request,
        [this](const ChangeSetType& changes, const Status& status) {
            onConfTreeChanged(changes, status);
        },
        0);
}

ConfObstreeHandler::Return<Api::UpdateCapConfResp> ConfObstreeHandler::updateCapConf(
    Api::UpdateCapConfReq& request, DataTree& tree) {
    auto response = std::make_unique<Api::UpdateCapConfResp>();
    const std::string root = capConfKey(request.confid());
    if (!holdsLastStateId(request, root, tree)) {
        m_logger->log(Hox::Log::here(), spdlog::level::warn,
                      "Configuration state id did not match");
        return {std::move(response),
                Status(ProtoStatus::FAILED_PRECONDITION, "ConfState identifier didnt match")};
    }
    const SliceUpdate update(request, root);
    Status refusal = update.check();
    if (!refusal.isOk()) {
        return {std::move(response), std::move(refusal)};
    }
    m_ignoreTreeChanges = true;
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Updating system configuration for {}",
                  root);
    notify(StateMonitoring::Api::WARN, "Sysconf cap update");
    m_hasUnsavedChanges = true;
    update.apply(tree, [this](const std::string& key, const google::protobuf::Any& value) {
        if (m_logger->should_log(spdlog::level::debug)) {
            m_logger->log(Hox::Log::here(), spdlog::level::debug,
                          "Updating system configuration for {} - {}", key, value.DebugString());
        }
    });
    const std::string stateId = newStateId();
    tree.insert_or_assign(root + stateIdKey, stateIdToValue(stateId));
    response->set_capconfstateid(stateId);
    return {std::move(response), Status()};
}

void ConfObstreeHandler::notify(StateMonitoring::Api::StateSeverity severity,
                                const std::string& msg) const {
    if (!m_stateTree) {
        return;
    }
    namespace Monitor = Hox::Capability::StateMonitoring::Api;
    Monitor::CreateStateNotificationReq request;
    auto& notification = *request.mutable_statenotification();
    notification.set_severity(severity);
    notification.set_service_id(m_serviceId);
    notification.set_type(
        Api::StateNotificationTypes_Name(Api::Cap_Configuration_SysConfPersisted));
    notification.set_source("sys/conf/update");
    notification.set_msg(msg);
    *notification.mutable_timestamp() =
        google::protobuf::util::TimeUtil::NanosecondsToTimestamp(nanosecondsSinceEpoch());
    Monitor::CreateStateNotificationResp response;
    m_stateTree->callUnary("/state/notifications", UnaryOps::CREATE, request, response);
}

ConfObstreeHandler::Return<Api::ReadCapConfResp> ConfObstreeHandler::readCapConf(
    const Api::ReadCapConfReq& request, DataTree& tree) const {
    auto response = std::make_unique<Api::ReadCapConfResp>();
    const std::string root = capConfKey(request.confid());
    const auto stateId = tree.find(root + stateIdKey);
    if (stateId == tree.end()) {
        response->mutable_capconfchangeset();
    } else if (!holdsStateId(*stateId->second, request.confstateid())) {
        auto& changes = *response->mutable_capconfchangeset()->mutable_node_change_map();
        for (const auto& [key, value] : tree.withPrefix(root)) {
            *changes[key].add_nodepairlist()->mutable_currentmessage() = *value->toAny();
        }
    }
    return {std::move(response), Status()};
}

void ConfObstreeHandler::greet(const Api::ObserveCapConfReq& request,
                               const ObserverCallback& callback) {
    Api::ReadCapConfReq readRequest;
    *readRequest.mutable_confid() = request.confid();
    readRequest.set_confstateid(request.lastcapconfstateid());
    const auto read = m_tree.callApiOp<UnaryOps::READ, Api::ReadCapConfReq, Api::ReadCapConfResp>(
        readAddress, readRequest);
    if (read.message->has_capconfchangeset()) {
        callback(splitCapConfKeys(std::move(*read.message->mutable_capconfchangeset())), Status());
    } else {
        callback(ChangeSetType(), Status(ProtoStatus::ALREADY_EXISTS, std::string()));
    }
}

void ConfObstreeHandler::onConfTreeChanged(const ChangeSetType& changes, const Status& /*status*/) {
    if (m_ignoreTreeChanges) {
        return;
    }
    std::map<std::string, ChangeSetType> groups;
    for (const auto& [key, keyChanges] : changes) {
        const std::size_t rootLength = sliceRootLength(key);
        groups[key.substr(uniqueIdStart, rootLength - uniqueIdStart)].emplace(
            key.substr(rootLength), keyChanges);
    }
    for (const auto& [uniqueConfId, group] : groups) {
        m_sliceObservers->tell(uniqueConfId, group);
    }
}

}  // namespace Hox::Capability::Configuration
