#include "hox/observer_tree/persistence/persistence_hndlr.h"

#include <google/protobuf/util/message_differencer.h>
#include <google/protobuf/wrappers.pb.h>

#include <chrono>
#include <map>
#include <utility>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/linutils/files.h"
#include "hox/observer_tree/change_set_conversion.h"
#include "hox/observer_tree/utils.h"

namespace Hox::ObserverTree {

namespace {

constexpr const char* observeAddress = "/.persist_observe_hndlr.";
constexpr const char* updateAddress = "/.persist_upd_hndlr.";
constexpr const char* stateIdKey = "/__csid";

/// How often the wait for the central store looks whether the process is about to end.
constexpr std::chrono::milliseconds endInterval{200};

/// Keys of the tree that an update may still remove, with their values.
using Candidates = std::map<std::string, DataTreeValPtr>;

/// A key that is too long for an expression is not in the persistent part.
bool matchesKey(Hox::CppUtil::BoundedRegex& expression, const std::string& key) {
    return key.size() <= Hox::CppUtil::BoundedRegex::maxSubjectSize && expression.matches(key);
}

Candidates candidatesFor(const std::string& regex, const DataTree& tree) {
    Candidates candidates;
    if (regex.empty()) {
        return candidates;
    }
    Hox::CppUtil::BoundedRegex expression(regex);
    for (const auto& [key, value] : tree) {
        if (matchesKey(expression, key)) {
            candidates.emplace_hint(candidates.end(), key, value);
        }
    }
    return candidates;
}

/// Keys that the changes have removed are no longer in the tree; keys that they have written are no
/// longer among the candidates.
void removeLeftOvers(const Candidates& candidates, DataTree& tree) {
    for (const auto& [key, value] : candidates) {
        if (!value->notPersisted()) {
            tree.erase(key);
        }
    }
}

void applyEntry(const std::string& key, const ObsTreeDataNodePair& pair, bool doCompare,
                Candidates& candidates, DataTree& tree) {
    if (!pair.has_currentmessage()) {
        tree.erase(key);
        return;
    }
    const auto candidate = candidates.find(key);
    const bool isEqual = candidate != candidates.end() && doCompare &&
                         google::protobuf::util::MessageDifferencer::Equals(
                             *candidate->second->toAny(), pair.currentmessage());
    if (!isEqual) {
        tree.insert_or_assign(key, std::make_shared<const DataTreeVal>(pair.currentmessage()));
    }
    if (candidate != candidates.end()) {
        candidates.erase(candidate);
    }
}

/// Releases a lock during its lifetime, if there is a lock and it is held.
class Released {
public:
    explicit Released(std::unique_lock<std::mutex>* lock)
        : m_lock(lock != nullptr && lock->owns_lock() ? lock : nullptr) {
        if (m_lock != nullptr) {
            m_lock->unlock();
        }
    }
    ~Released() {
        if (m_lock != nullptr) {
            m_lock->lock();
        }
    }
    Released(const Released&) = delete;
    Released(Released&&) = delete;
    Released& operator=(const Released&) = delete;
    Released& operator=(Released&&) = delete;

private:
    std::unique_lock<std::mutex>* m_lock;
};

/// Empty, which matches no state of the store, if a file or a client has left a value of another
/// type.
std::string readStateId(const DataTree& tree) {
    const auto stateId = tree.find(stateIdKey);
    if (stateId == tree.end()) {
        return "";
    }
    try {
        return stateId->second->get<google::protobuf::StringValue>().value();
    } catch (const Hox::Error&) {
        return "";
    }
}

}  // namespace

PersistenceHndlr::PersistenceHndlr(ObserverTree& tree,
                                   std::unique_ptr<std::unique_lock<std::mutex>>& lock,
                                   std::string nodeType, std::string nodeId,
                                   std::string capabilityId, const std::string& keyRegex)
    : m_logger(Hox::Log::getLogsystem()->getLogger("PersistenceHndlr")),
      m_tree(tree),
      m_lock(lock),
      m_nodeType(std::move(nodeType)),
      m_nodeId(std::move(nodeId)),
      m_capabilityId(std::move(capabilityId)),
      m_persistKeyRegex(keyRegex + "|" + stateIdKey) {
    m_logger->log(Hox::Log::here(), spdlog::level::trace,
                  "Starting Persistence handler with persistKeyRegex {}", m_persistKeyRegex);
    m_tree.registerDefaultRegExObserveHandler(observeAddress);
    m_tree.registerUnaryOpHandler<UnaryOps::UPDATE, UpdateDataTreeReq, UpdateDataTreeResp>(
        updateAddress, [this](const UpdateDataTreeReq& request, DataTree& dataTree) {
            return update(request, dataTree);
        });
    m_tree.registerUnaryOpHandler<UnaryOps::READ, ReadDataTreeReq, ReadDataTreeResp>(
        updateAddress, [this](const ReadDataTreeReq& request, DataTree& dataTree) {
            return read(request, dataTree);
        });
}

void PersistenceHndlr::setNodeDataHndlr(std::shared_ptr<INodeDataHndlr> nodeDataHndlr,
                                        std::function<bool()> isEnding) {
    m_nodeDataHndlr = std::move(nodeDataHndlr);
    m_isEnding = std::move(isEnding);
}

void PersistenceHndlr::init(bool startPersisting, const std::string& persistDir,
                            const LoadFilter& onLoad) {
    if (!persistDir.empty()) {
        if (Hox::LinuxCppUtil::makeFolders(persistDir)) {
            m_logger->log(Hox::Log::here(), spdlog::level::info, "Created persist directory {}",
                          persistDir);
        }
        ChangeSetType content = m_nodeDataFile.readNodeData(persistDir);
        if (onLoad) {
            onLoad(content);
        }
        applyChangeSet(content, false, false);
    }
    if (startPersisting) {
        startPersistingObsTree(persistDir, false);
    }
}

void PersistenceHndlr::startPersistingObsTree(const std::string& persistDir,
                                              bool persistFirstChange) {
    HOX_ASSERT(!m_observeRaiiHandle.has_value());
    m_persistFirstChange = persistFirstChange;
    RegExObserveReq request;
    request.set_reg_ex(m_persistKeyRegex);
    m_observeRaiiHandle = m_tree.observe<RegExObserveReq>(
        observeAddress, request,
        [this, persistDir](const ChangeSetType& changes, const Status& status) {
            onTreeChanged(changes, status, persistDir);
        },
        0);
    m_persistFirstChange = true;
    if (m_nodeDataHndlr) {
        startCentralObserving();
    }
}

void PersistenceHndlr::writeAll(const DataTree& tree, const std::filesystem::path& directory) {
    Hox::CppUtil::BoundedRegex persistent(m_persistKeyRegex);
    for (const auto& [key, value] : tree) {
        if (!value->notPersisted() && matchesKey(persistent, key)) {
            m_nodeDataFile.saveNodeData(directory, key, *value->toAny());
        }
    }
}

void PersistenceHndlr::stopPersistingObsTree() {
    m_observeRaiiHandle.reset();
}

void PersistenceHndlr::startCentralObserving() {
    // Shared with the callback, which outlives this call.
    const auto firstAnswer = std::make_shared<Hox::CppUtil::CountingSemaphore>();
    m_centralObserveHandle.reset();
    m_centralDataSeen = false;
    // A copy, because any change of the tree may replace the member once the lock is released.
    const std::string lastStateId = m_confStateId;
    const Released released(m_lock.get());
    m_centralObserveHandle = m_nodeDataHndlr->observeNodeData(
        lastStateId, m_nodeType, m_nodeId, m_capabilityId,
        [this, firstAnswer](const ChangeSetType& changes, const Status& status) {
            onCentralData(changes, status, *firstAnswer);
        });
    while (!firstAnswer->waitUntil(std::chrono::steady_clock::now() + endInterval) &&
           !m_isEnding()) {
    }
}

void PersistenceHndlr::endCentralObserving() {
    m_centralObserveHandle.reset();
}

void PersistenceHndlr::onCentralData(const ChangeSetType& changes, const Status& status,
                                     Hox::CppUtil::CountingSemaphore& firstAnswer) {
    const bool wasLost = m_isStoreLost;
    m_isStoreLost = status.statusCode() == ProtoStatus::CANCELLED;
    if (m_isStoreLost) {
        m_storedCount = 0;  // a store that comes back may have lost what was not saved
    } else if (status.statusCode() == ProtoStatus::ALREADY_EXISTS) {
        m_storeCentrally = true;
        if (m_isStoreBehind) {
            storeEverythingCentrally();
        }
    } else if (status.isOk() && wasLost && changes.empty() && !m_confStateId.empty()) {
        // The store has lost what it had, as nobody had saved it.
        storeEverythingCentrally();
    } else if (status.isOk()) {
        // Nobody may see the tree between the two steps.
        const auto lock = m_tree.lockHandlers();
        m_storeCentrally = false;
        applyChangeSet({}, false, true);
        applyChangeSet(changes, false, true);
        m_storeCentrally = true;
        m_isStoreBehind = false;
    }
    if (!m_centralDataSeen) {
        m_centralDataSeen = true;
        firstAnswer.post();
    }
}

void PersistenceHndlr::onTreeChanged(const ChangeSetType& changes, const Status& status,
                                     const std::string& persistDir) {
    HOX_ASSERT(status.isOk());
    ChangeSetType filtered;
    for (const auto& change : changes) {
        const auto& current = change.second.at(0).current;
        if (!current || !current->notPersisted()) {
            filtered.emplace_hint(filtered.end(), change);
        }
    }
    if (m_persistFirstChange && !filtered.empty()) {
        if (m_storeCentrally) {
            storeCentrally(filtered);
        } else {
            m_isStoreBehind = true;  // taken back if this is what the store has sent
        }
        if (!persistDir.empty()) {
            m_nodeDataFile.saveChangeSet(filtered, persistDir);
        }
    }
    m_persistFirstChange = true;
}

void PersistenceHndlr::storeEverythingCentrally() {
    const auto lock = m_tree.lockHandlers();
    m_storedCount = 0;
    ChangeSetType everything;
    storeCentrally(everything);
}

void PersistenceHndlr::storeCentrally(ChangeSetType& changes) {
    const bool isPatch = m_storedCount != 0;
    if (!isPatch) {
        changes = readWholePicture();
    }
    const auto stored = m_nodeDataHndlr->storeNodeData(m_confStateId, m_nodeType, m_nodeId,
                                                       m_capabilityId, changes, isPatch);
    if (stored.status.isOk()) {
        ++m_storedCount;
        m_isStoreBehind = false;
        m_confStateId = stored.stateId;
        google::protobuf::StringValue stateId;
        stateId.set_value(stored.stateId);
        ChangeSetType stateIdChange;
        addToChangeSet(stateIdChange, stateIdKey,
                       std::make_shared<const DataTreeVal>(std::move(stateId)), nullptr, 0);
        applyChangeSet(stateIdChange, true, false);
    } else if (stored.status.statusCode() != ProtoStatus::ALREADY_EXISTS) {
        m_logger->log(Hox::Log::here(), spdlog::level::warn,
                      "Store node data centrally failed - status {}",
                      stored.status.proto().DebugString());
        m_isStoreBehind = true;
    }
}

ChangeSetType PersistenceHndlr::readWholePicture() {
    ReadDataTreeReq request;
    request.set_regex(m_persistKeyRegex);
    const auto result =
        m_tree.callApiOp<UnaryOps::READ, ReadDataTreeReq, ReadDataTreeResp>(updateAddress, request);
    return fromWire(result.message->changeset());
}

void PersistenceHndlr::applyChangeSet(const ChangeSetType& changes, bool isPatch, bool doCompare) {
    UpdateDataTreeReq request;
    request.set_do_compare(doCompare);
    for (const auto& [key, keyChanges] : changes) {
        toWire(keyChanges.at(0), (*request.mutable_node_change_map())[key]);
    }
    if (!isPatch) {
        request.set_node_remove_regex(m_persistKeyRegex);
    }
    const auto result = m_tree.callApiOp<UnaryOps::UPDATE, UpdateDataTreeReq, UpdateDataTreeResp>(
        updateAddress, request);
    m_confStateId = result.message->conf_state_id();
}

UnaryHandlerReturnType<UpdateDataTreeResp> PersistenceHndlr::update(
    const UpdateDataTreeReq& request, DataTree& tree) {
    auto response = std::make_unique<UpdateDataTreeResp>();
    Candidates candidates = candidatesFor(request.node_remove_regex(), tree);
    Hox::CppUtil::BoundedRegex persistent(m_persistKeyRegex);
    for (const auto& [key, pair] : request.node_change_map()) {
        if (matchesKey(persistent, key)) {
            applyEntry(key, pair, request.do_compare(), candidates, tree);
        }
    }
    removeLeftOvers(candidates, tree);
    response->set_conf_state_id(readStateId(tree));
    return {std::move(response), Status()};
}

UnaryHandlerReturnType<ReadDataTreeResp> PersistenceHndlr::read(const ReadDataTreeReq& request,
                                                                DataTree& tree) const {
    auto response = std::make_unique<ReadDataTreeResp>();
    Hox::CppUtil::BoundedRegex expression(request.regex());
    auto& changeMap = *response->mutable_changeset()->mutable_node_change_map();
    for (const auto& [key, value] : tree) {
        if (!value->notPersisted() && matchesKey(expression, key)) {
            *changeMap[key].add_nodepairlist()->mutable_currentmessage() = *value->toAny();
        }
    }
    return {std::move(response), Status()};
}

}  // namespace Hox::ObserverTree
