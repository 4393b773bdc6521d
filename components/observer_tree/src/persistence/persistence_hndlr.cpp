#include "hox/observer_tree/persistence/persistence_hndlr.h"

#include <google/protobuf/wrappers.pb.h>
#include <spdlog/logger.h>

#include <chrono>
#include <map>
#include <utility>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/linutils/files.h"
#include "hox/observer_tree/change_set_conversion.h"
#include "hox/observer_tree/utils.h"
#include "persistence/data_tree_update.h"
#include "persistence/key_expression.h"
#include "persistence/unstored_keys.h"

namespace Hox::ObserverTree {

namespace {

constexpr const char* observeAddress = "/.persist_observe_hndlr.";
constexpr const char* updateAddress = "/.persist_upd_hndlr.";
constexpr const char* stateIdKey = "/__csid";

/// How often the wait for the central store looks whether the process is about to end.
constexpr std::chrono::milliseconds endInterval{200};

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
      m_persistKeyRegex(keyRegex + "|" + stateIdKey),
      m_unstored(std::make_unique<UnstoredKeys>()) {
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

PersistenceHndlr::~PersistenceHndlr() = default;

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
        applyChangeSet(std::move(content), false, false);
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
        m_unstored->open(persistDir);
        startCentralObserving();
    }
}

void PersistenceHndlr::writeAll(const DataTree& tree, const std::filesystem::path& directory) {
    KeyExpression persistent(m_persistKeyRegex);
    ChangeSetType values;
    for (const auto& [key, value] : tree) {
        if (!value->notPersisted() && persistent.matches(key)) {
            values.emplace_hint(values.end(), key, std::vector<ChangeSetMapVal>{{value, nullptr}});
        }
    }
    m_nodeDataFile.saveChangeSet(values, directory);
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
        if (!m_unstored->empty()) {
            storeEverythingCentrally();
        }
    } else if (status.isOk() && changes.empty() &&
               ((wasLost && !m_confStateId.empty()) || !m_unstored->empty())) {
        // The store has lost what it had, as nobody had saved it, or has never got it.
        m_storeCentrally = true;
        storeEverythingCentrally();
    } else if (status.isOk()) {
        // Nobody may see the tree between the two steps.
        const auto lock = m_tree.lockHandlers();
        m_storeCentrally = false;
        m_isTakingOver = true;
        applyChangeSet({}, false, true);
        applyChangeSet(changes, false, true);
        m_isTakingOver = false;
        m_storeCentrally = true;
        m_unstored->clear();
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
        } else if (m_nodeDataHndlr && !m_isTakingOver) {
            m_unstored->add(filtered, stateIdKey);
        }
        if (!persistDir.empty()) {
            saveToFiles(std::move(filtered), persistDir);
        }
    }
    m_persistFirstChange = true;
}

/// Whenever the power fails, the state id is only there with all values to which it belongs:
/// otherwise the store would say after the restart that nothing is missing.
void PersistenceHndlr::saveToFiles(ChangeSetType changes, const std::string& persistDir) {
    ChangeSetType stateId;
    if (auto node = changes.extract(stateIdKey)) {
        stateId.insert(std::move(node));
    }
    const bool isRemoval = !stateId.empty() && !stateId.begin()->second.at(0).current;
    m_nodeDataFile.saveChangeSet(isRemoval ? stateId : changes, persistDir);
    m_nodeDataFile.saveChangeSet(isRemoval ? changes : stateId, persistDir);
}

void PersistenceHndlr::storeEverythingCentrally() {
    const auto lock = m_tree.lockHandlers();
    m_storedCount = 0;
    ChangeSetType everything;
    storeCentrally(everything);
}

/// After a full send the changes are the whole picture and the removals, for the files.
void PersistenceHndlr::storeCentrally(ChangeSetType& changes) {
    const bool isPatch = m_storedCount != 0;
    ChangeSetType everything;
    ChangeSetType removals;
    if (!isPatch) {
        everything = readWholePicture();
        removals = removedFrom(everything, changes);
        if (everything.empty() || (everything.size() == 1 && everything.count(stateIdKey) == 1)) {
            everything.insert(removals.begin(), removals.end());  // or it would say nothing
        }
    }
    const auto stored =
        m_nodeDataHndlr->storeNodeData(m_confStateId, m_nodeType, m_nodeId, m_capabilityId,
                                       isPatch ? changes : everything, isPatch);
    if (stored.status.isOk()) {
        ++m_storedCount;
        forgetUnstored(changes, isPatch);
        m_confStateId = stored.stateId;
        google::protobuf::StringValue stateId;
        stateId.set_value(stored.stateId);
        ChangeSetType stateIdChange;
        addToChangeSet(stateIdChange, stateIdKey,
                       std::make_shared<const DataTreeVal>(std::move(stateId)), nullptr, 0);
        applyChangeSet(std::move(stateIdChange), true, false);
    } else if (stored.status.statusCode() != ProtoStatus::ALREADY_EXISTS) {
        m_logger->log(Hox::Log::here(), spdlog::level::warn,
                      "Store node data centrally failed - status {}",
                      stored.status.proto().DebugString());
        rememberFailure(stored.status, changes, isPatch);
    }
    if (!isPatch) {
        changes = std::move(everything);
        changes.merge(removals);
    }
}

/// A refused change gives way to the store's content, which is asked for then; if it were
/// remembered, a store that refuses each attempt would get one after each answer. Without an answer
/// the store may have lost more than this change, so the next one takes everything along.
void PersistenceHndlr::rememberFailure(const Status& status, const ChangeSetType& changes,
                                       bool isPatch) {
    if (status.statusCode() == ProtoStatus::FAILED_PRECONDITION) {
        forgetUnstored(changes, isPatch);
    } else {
        m_unstored->add(changes, stateIdKey);
    }
    if (status.statusCode() == ProtoStatus::UNAVAILABLE) {
        m_storedCount = 0;
    }
}

void PersistenceHndlr::forgetUnstored(const ChangeSetType& changes, bool isPatch) {
    if (isPatch) {
        m_unstored->remove(changes);
    } else {
        m_unstored->clear();
    }
}

/// What these changes and those that could not be stored have removed.
ChangeSetType PersistenceHndlr::removedFrom(const ChangeSetType& picture,
                                            const ChangeSetType& changes) const {
    ChangeSetType removals = m_unstored->removedFrom(picture);
    for (const auto& change : changes) {
        if (picture.count(change.first) == 0) {
            removals[change.first] = change.second;
        }
    }
    return removals;
}

ChangeSetType PersistenceHndlr::readWholePicture() const {
    ReadDataTreeReq request;
    request.set_regex(m_persistKeyRegex);
    const auto result =
        m_tree.callApiOp<UnaryOps::READ, ReadDataTreeReq, ReadDataTreeResp>(updateAddress, request);
    return fromWire(result.message->changeset());
}

void PersistenceHndlr::applyChangeSet(ChangeSetType changes, bool isPatch, bool doCompare) {
    UpdateDataTreeReq request;
    request.set_do_compare(doCompare);
    while (!changes.empty()) {
        const auto change = changes.begin();
        toWire(change->second.at(0), (*request.mutable_node_change_map())[change->first]);
        changes.erase(change);
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
    DataTreeUpdate(request, m_persistKeyRegex).applyTo(tree);
    response->set_conf_state_id(readStateId(tree));
    return {std::move(response), Status()};
}

UnaryHandlerReturnType<ReadDataTreeResp> PersistenceHndlr::read(const ReadDataTreeReq& request,
                                                                DataTree& tree) const {
    auto response = std::make_unique<ReadDataTreeResp>();
    KeyExpression expression(request.regex());
    auto& changeMap = *response->mutable_changeset()->mutable_node_change_map();
    for (const auto& [key, value] : tree) {
        if (!value->notPersisted() && expression.matches(key)) {
            *changeMap[key].add_nodepairlist()->mutable_currentmessage() = *value->toAny();
        }
    }
    return {std::move(response), Status()};
}

}  // namespace Hox::ObserverTree
