#include "hox/configuration/conf_obstree_handler.h"

#include <google/protobuf/util/time_util.h>

#include <utility>
#include <vector>

#include "conf_keys.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/observer_tree/path_error.h"
#include "state_id.h"
#include "state_monitoring.pb.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTree;
using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::ObserverCallback;
using Hox::ObserverTree::ObsTreeDataNodePairList;
using Hox::ObserverTree::PathManipulation;
using Hox::ObserverTree::PathType;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;

namespace {

constexpr const char* dataAddress = "/sys/conf/.data.";
constexpr const char* readAddress = "/.rcc.";
constexpr const char* observeAddress = "/sys/.conf.";

/// The only pair of an entry that counts. A sender that leaves the list empty breaks the protocol
/// of the configuration store, which ends the process in every kind of build.
const Hox::ObserverTree::ObsTreeDataNodePair& firstPair(const ObsTreeDataNodePairList& list) {
    if (list.nodepairlist().empty()) {
        Hox::CppUtil::getAssertion().assertTrue(
            false, "CHECK failed: (index) < (current_size_): ", __FILE__, __LINE__);
        std::abort();
    }
    return list.nodepairlist(0);
}

/// Finds what the tree or the file store would refuse in a client's key; rootIsValid tells that the
/// slice's root is a well-formed key by itself.
Status checkKey(const std::string& root, bool rootIsValid, const std::string& key) {
    const PathManipulation path;
    const std::string composed = root + key;
    try {
        path.parsePath(PathType::Key, key);
        if (!rootIsValid || key.size() == 1) {
            path.parsePath(PathType::Key, composed);
        }
    } catch (const Hox::ObserverTree::PathError& error) {
        return {ProtoStatus::FAILED_PRECONDITION, error.what()};
    }
    const std::string refusal = whyNotStorable(composed);
    return refusal.empty() ? Status() : Status(ProtoStatus::INVALID_ARGUMENT, refusal);
}

bool isValidKey(const std::string& key) {
    try {
        PathManipulation().parsePath(PathType::Key, key);
        return true;
    } catch (const Hox::ObserverTree::PathError&) {
        return false;
    }
}

void removeSlice(const std::string& root, DataTree& tree) {
    std::vector<std::string> keys;
    forEachWithPrefix(tree, root, [&keys](const auto& element) { keys.push_back(element.first); });
    for (const auto& key : keys) {
        tree.erase(key);
    }
}

}  // namespace

ConfObstreeHandler::ConfObstreeHandler(Hox::ObserverTree::ObserverTree& tree,
                                       std::unique_ptr<std::unique_lock<std::mutex>>& lock,
                                       const std::string& confPath, const std::string& serviceId)
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_tree(tree),
      m_persistHndlr(std::make_unique<Hox::ObserverTree::PersistenceHndlr>(
          tree, lock, std::string(), std::string(), std::string(), "/sys/conf/.*")),
      m_confPath(confPath),
      m_serviceId(serviceId) {
    m_persistHndlr->init(false, m_confPath);
}

void ConfObstreeHandler::setStateTree(
    std::shared_ptr<Hox::ObserverTree::GrpcProxyObserverTree> stateTree) {
    m_stateTree = std::move(stateTree);
}

void ConfObstreeHandler::registerObsTreeHandlers() {
    m_tree.registerUnaryOpHandler<UnaryOps::UPDATE, Api::UpdateCapConfReq, Api::UpdateCapConfResp>(
        confRoot, [this](const Api::UpdateCapConfReq& request, DataTree& tree) {
            return updateCapConf(request, tree);
        });
    m_tree.registerUnaryOpHandler<UnaryOps::READ, Api::GetSysConfReq, Api::GetSysConfResp>(
        dataAddress, [this](const Api::GetSysConfReq& /*request*/, DataTree& /*tree*/) {
            return readSysConf();
        });
    m_tree.registerUnaryOpHandler<UnaryOps::UPDATE, Api::UpdateSysConfReq, Api::UpdateSysConfResp>(
        dataAddress, [this](const Api::UpdateSysConfReq& request, DataTree& /*tree*/) {
            return updateSysConf(request);
        });
    m_tree.registerNewObserverHandler<Api::ObserveCapConfReq>(
        confRoot, [this](const Api::ObserveCapConfReq& request, const ObserverCallback& callback) {
            observeCapConf(request, callback);
        });
    m_tree.registerObserverGoneHandler<Api::ObserveCapConfReq>(
        confRoot, [this](const Api::ObserveCapConfReq& request,
                         const ObserverCallback& /*callback*/) { stopObserveCapConf(request); });
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
    const Api::UpdateCapConfReq& request, DataTree& tree) {
    auto response = std::make_unique<Api::UpdateCapConfResp>();
    const std::string root = capConfKey(request.confid());
    Status refusal = checkUpdate(request, root, tree);
    if (!refusal.isOk()) {
        return {std::move(response), std::move(refusal)};
    }
    m_ignoreTreeChanges = true;
    m_logger->log(Hox::Log::here(), spdlog::level::info, "Updating system configuration for {}",
                  root);
    notify(StateMonitoring::Api::WARN, "Sysconf cap update");
    if (!request.ispatch()) {
        removeSlice(root, tree);
    }
    applyChanges(request, root, tree);
    const std::string stateId = newStateId();
    tree.insert_or_assign(root + stateIdKey, stateIdToValue(stateId));
    response->set_capconfstateid(stateId);
    return {std::move(response), Status()};
}

Status ConfObstreeHandler::checkUpdate(const Api::UpdateCapConfReq& request,
                                       const std::string& capConfKey, const DataTree& tree) const {
    const auto stateId = tree.find(capConfKey + stateIdKey);
    if (stateId != tree.end() && !holdsStateId(*stateId->second, request.lastcapconfstateid())) {
        m_logger->log(Hox::Log::here(), spdlog::level::warn,
                      "Configuration state id did not match");
        return {ProtoStatus::FAILED_PRECONDITION, "ConfState identifier didnt match"};
    }
    const bool rootIsValid = isValidKey(capConfKey);
    for (const auto& [key, pairList] : request.capconfchangeset().node_change_map()) {
        firstPair(pairList);
        Status refusal = checkKey(capConfKey, rootIsValid, key);
        if (!refusal.isOk()) {
            return refusal;
        }
    }
    return checkKey(capConfKey, rootIsValid, stateIdKey);
}

void ConfObstreeHandler::applyChanges(const Api::UpdateCapConfReq& request,
                                      const std::string& capConfKey, DataTree& tree) {
    for (const auto& [key, pairList] : request.capconfchangeset().node_change_map()) {
        const auto& pair = firstPair(pairList);
        std::string fullKey = capConfKey + key;
        if (!pair.has_currentmessage()) {
            tree.erase(fullKey);
            continue;
        }
        if (m_logger->should_log(spdlog::level::debug)) {
            m_logger->log(Hox::Log::here(), spdlog::level::debug,
                          "Updating system configuration for {} - {}", fullKey,
                          pair.currentmessage().DebugString());
        }
        tree.insert_or_assign(std::move(fullKey),
                              std::make_shared<const DataTreeVal>(pair.currentmessage()));
    }
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
    *notification.mutable_timestamp() = google::protobuf::util::TimeUtil::GetCurrentTime();
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
        forEachWithPrefix(tree, root, [&changes](const auto& element) {
            *changes[element.first].add_nodepairlist()->mutable_currentmessage() =
                *element.second->toAny();
        });
    }
    return {std::move(response), Status()};
}

void ConfObstreeHandler::observeCapConf(const Api::ObserveCapConfReq& request,
                                        const ObserverCallback& callback) {
    const std::string uniqueConfId = Configuration::uniqueConfId(request.confid());
    HOX_ASSERT(m_observeCbMap.find(uniqueConfId) == m_observeCbMap.end());
    m_observeCbMap[uniqueConfId] = callback;
    Api::ReadCapConfReq readRequest;
    *readRequest.mutable_confid() = request.confid();
    readRequest.set_confstateid(request.lastcapconfstateid());
    const auto read = m_tree.callApiOp<UnaryOps::READ, Api::ReadCapConfReq, Api::ReadCapConfResp>(
        readAddress, readRequest);
    if (read.message->has_capconfchangeset()) {
        callback(splitCapConfKeys(read.message->capconfchangeset()), Status());
    } else {
        callback(ChangeSetType(), Status(ProtoStatus::ALREADY_EXISTS, std::string()));
    }
}

void ConfObstreeHandler::stopObserveCapConf(const Api::ObserveCapConfReq& request) {
    const std::string uniqueConfId = Configuration::uniqueConfId(request.confid());
    HOX_ASSERT(m_observeCbMap.find(uniqueConfId) != m_observeCbMap.end());
    m_observeCbMap.erase(uniqueConfId);
}

void ConfObstreeHandler::onConfTreeChanged(const ChangeSetType& changes, const Status& /*status*/) {
    if (m_ignoreTreeChanges) {
        return;
    }
    std::map<std::string, ChangeSetType> groups;
    const std::size_t uniqueIdStart = std::string(confRoot).size() + 1;
    for (const auto& [key, keyChanges] : changes) {
        const std::size_t rootLength = sliceRootLength(key);
        groups[key.substr(uniqueIdStart, rootLength - uniqueIdStart)].emplace(
            key.substr(rootLength), keyChanges);
    }
    for (const auto& [uniqueConfId, group] : groups) {
        const auto observer = m_observeCbMap.find(uniqueConfId);
        if (observer != m_observeCbMap.end()) {
            observer->second(group, Status());
        }
    }
}

}  // namespace Hox::Capability::Configuration
