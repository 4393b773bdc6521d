#include "hox/observer_tree/observer_tree_ops.h"

#include <spdlog/logger.h>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/observer_tree/func_node_handler_error.h"

namespace Hox::ObserverTree {

namespace {

std::string debugString(const DataTreeValPtr& value) {
    return value ? value->toAny()->DebugString() : "NONE";
}

}  // namespace

ObserverTreeOps::ObserverTreeOps(std::shared_ptr<FunctionTree> functionTree,
                                 std::shared_ptr<std::recursive_mutex> handlerLock,
                                 std::shared_ptr<DataTree> dataTree,
                                 std::shared_ptr<std::recursive_mutex> dataLock,
                                 std::shared_ptr<ObserveNodes> observeNodes)
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_handlerLock(std::move(handlerLock)),
      m_dataLock(std::move(dataLock)),
      m_functionTree(std::move(functionTree)),
      m_observeNodes(std::move(observeNodes)),
      m_dataTree(std::move(dataTree)) {}

std::any ObserverTreeOps::observeCast(const std::string& key, const BaseMsgType& inMsg,
                                      ObserverCallback callback,
                                      [[maybe_unused]] uint64_t startIndex) {
    const std::lock_guard<std::recursive_mutex> handlerGuard(*m_handlerLock);
    const auto node = requireObserveNode(key);
    const std::lock_guard<std::recursive_mutex> dataGuard(*m_dataLock);
    auto handle = node->observeCast(inMsg, std::move(callback));
    deliverSnapshot(node, handle);
    return handle;
}

FunctionTree::iterator ObserverTreeOps::findUnaryNode(UnaryOps operation, const std::string& key) {
    const auto found = m_functionTree->find(key);
    const bool isServed =
        found != m_functionTree->end() && found->second->hasUnaryHandler(operation);
    return isServed ? found : m_functionTree->end();
}

TreeNode& ObserverTreeOps::requireUnaryNode(UnaryOps operation, const std::string& key) {
    const auto found = findUnaryNode(operation, key);
    if (found == m_functionTree->end()) {
        const std::string text = std::string("No handler for CRUR operation ") +
                                 toString(operation) + " registered under " + key + "\n";
        m_logger->log(Hox::Log::here(), spdlog::level::err, "{}", text);
        throw FuncNodeHandlerError(text, __FILE__, __LINE__);
    }
    return *found->second;
}

std::shared_ptr<TreeNode> ObserverTreeOps::requireObserveNode(const std::string& key) {
    const auto found = m_functionTree->find(key);
    if (found == m_functionTree->end()) {
        throw FuncNodeHandlerError("No observe handler registered under \"" + key + "\"", __FILE__,
                                   __LINE__);
    }
    return found->second;
}

void ObserverTreeOps::traceCall(UnaryOps operation, TypeName requestName,
                                TypeName responseName) const {
    if (m_logger->should_log(spdlog::level::trace)) {
        m_logger->log(Hox::Log::here(), spdlog::level::trace, "Calling API Func {}: \n{} -> {}",
                      toString(operation), requestName(), responseName());
    }
}

void ObserverTreeOps::deliverSnapshot(const std::shared_ptr<TreeNode>& node, std::any handle) {
    auto snapshot = node->snapshotFor(handle, *m_dataTree);
    callAllObserveHandlers(*m_dataTree,
                           [node, snapshot = std::move(snapshot), handle = std::move(handle)] {
                               node->callObserveHandler(snapshot, handle);
                           });
}

void ObserverTreeOps::callAllObserveHandlers(DataTree& tree, std::function<void()> callback) {
    if (callback) {
        m_deferredCallbacks.push_back(std::move(callback));
    }
    m_logger->log(Hox::Log::here(), spdlog::level::trace,
                  "Calling Observers - callbacksBeingProcessed {}",
                  m_callbacksBeingProcessed ? "True" : "False");
    if (m_callbacksBeingProcessed) {
        return;
    }
    m_callbacksBeingProcessed = true;
    ChangeSetType changes = tree.takeChangeSet();
    while (!changes.empty() || !m_deferredCallbacks.empty()) {
        runDeferredCallbacks();
        if (!changes.empty()) {
            deliver(changes);
        }
        tree.recycle(std::move(changes));
        changes = tree.takeChangeSet();
    }
    m_callbacksBeingProcessed = false;
    m_logger->log(Hox::Log::here(), spdlog::level::trace, "Done Calling Observers");
}

void ObserverTreeOps::runDeferredCallbacks() {
    while (!m_deferredCallbacks.empty()) {
        // The callback may hold the last handle of an observer, and its end may defer another
        // callback: the queue must not be in the middle of a change then.
        const auto callback = std::move(m_deferredCallbacks.front());
        m_deferredCallbacks.pop_front();
        callback();
    }
}

void ObserverTreeOps::deliver(const ChangeSetType& changes) {
    traceChanges(changes);
    // By index: an observer may register another node. NOLINTNEXTLINE(modernize-loop-convert)
    for (std::size_t i = 0; i < m_observeNodes->size(); ++i) {
        const auto node = m_observeNodes->at(i);
        node->callObserveHandler(changes, std::any{});
    }
}

void ObserverTreeOps::traceChanges(const ChangeSetType& changes) {
    if (!m_logger->should_log(spdlog::level::trace)) {
        return;
    }
    for (const auto& [key, keyChanges] : changes) {
        m_logger->log(Hox::Log::here(), spdlog::level::trace,
                      "Node Change Key {} Current Value \"{}\" previous \"{}\" ", key,
                      debugString(keyChanges.front().current),
                      debugString(keyChanges.front().previous));
    }
}

}  // namespace Hox::ObserverTree
