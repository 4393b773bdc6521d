#pragma once

#include <spdlog/fwd.h>

#include <any>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "hox/cpputil/log/logger_name.h"
#include "hox/cpputil/type/type_name.h"
#include "hox/observer_tree/tree_types.h"
#include "hox/observer_tree/unary_ops.h"

namespace Hox::ObserverTree {

/// The operations on a tree, and the delivery of what they change.
///
/// Callable from any thread; all operations of one tree are strictly serial, including handler and
/// delivery. Observers run on the calling thread before an operation returns. Handlers and
/// observers may call back into the tree on their own thread. Writes that a handler made before it
/// threw stay and are delivered with the next operation.
class ObserverTreeOps {
public:
    /// Shares the state of the tree. Lock order: handler lock, data lock, then a node's own mutex.
    ObserverTreeOps(std::shared_ptr<FunctionTree> functionTree,
                    std::shared_ptr<std::recursive_mutex> handlerLock,
                    std::shared_ptr<DataTree> dataTree,
                    std::shared_ptr<std::recursive_mutex> dataLock,
                    std::shared_ptr<ObserveNodes> observeNodes);
    virtual ~ObserverTreeOps() = default;
    ObserverTreeOps(const ObserverTreeOps&) = delete;
    ObserverTreeOps(ObserverTreeOps&&) = delete;
    ObserverTreeOps& operator=(const ObserverTreeOps&) = delete;
    ObserverTreeOps& operator=(ObserverTreeOps&&) = delete;

    /// Runs the handler registered for exactly this address, then delivers what it wrote. Throws
    /// FuncNodeHandlerError if there is none, and what the handler throws.
    template <UnaryOps OpId, typename InMsg, typename ReturnType>
    UnaryHandlerReturnType<ReturnType> callApiOp(const std::string& key, const InMsg& inMsg) {
        const std::lock_guard<std::recursive_mutex> handlerGuard(*m_handlerLock);
        TreeNode& node = requireUnaryNode(OpId, key);
        traceCall(OpId, getTemplateTypeName<InMsg>, getTemplateTypeName<ReturnType>);
        const std::lock_guard<std::recursive_mutex> dataGuard(*m_dataLock);
        m_dataTree->setKeyPattern(key);
        auto result = node.template callUnaryHandler<OpId, InMsg, ReturnType>(inMsg, *m_dataTree);
        callAllObserveHandlers(*m_dataTree, {});
        return result;
    }

    /// The same for callers that know messages by descriptor only. Throws std::bad_cast if the
    /// message is not of the handler's type.
    template <UnaryOps OpId>
    UnaryHandlerReturnType<BaseMsgType> unaryOpCast(const std::string& key,
                                                    const BaseMsgType& inMsg) {
        return runCast<OpId>(key, inMsg);
    }

    /// The same for a caller that hands over its message: parts that the handler moved out are
    /// missing afterwards.
    template <UnaryOps OpId>
    UnaryHandlerReturnType<BaseMsgType> unaryOpCast(const std::string& key, BaseMsgType&& inMsg) {
        return runCast<OpId>(key, std::move(inMsg));
    }

    /// Registers an observer at exactly this address and delivers the first snapshot to it, before
    /// this call returns unless it runs inside a delivery. startIndex is not used. Throws
    /// FuncNodeHandlerError if there is no such node; a node without an observe handler accepts an
    /// observer that never gets a call.
    template <typename InMsg>
    ObserveRaiiHandleType<InMsg> observe(const std::string& key, const InMsg& inMsg,
                                         ObserverCallback callback,
                                         [[maybe_unused]] uint64_t startIndex) {
        const std::lock_guard<std::recursive_mutex> handlerGuard(*m_handlerLock);
        const auto node = requireObserveNode(key);
        const std::lock_guard<std::recursive_mutex> dataGuard(*m_dataLock);
        auto handle = node->template observe<InMsg>(inMsg, std::move(callback));
        deliverSnapshot(node, handle);
        return handle;
    }

    /// The same by descriptor; the result holds the handle.
    std::any observeCast(const std::string& key, const BaseMsgType& inMsg,
                         ObserverCallback callback, uint64_t startIndex);

    /// The node at the address if it has a handler for the operation, otherwise the map's end. Runs
    /// under the handler lock.
    template <UnaryOps OpId>
    FunctionTree::iterator getUnaryOpFuncNode(const std::string& key) {
        return findUnaryNode(OpId, key);
    }

    /// Takes the handler lock, so that several operations of this thread are atomic.
    std::unique_lock<std::recursive_mutex> lockHandlers() {
        return std::unique_lock<std::recursive_mutex>(*m_handlerLock);
    }

    /// Delivers all pending changes, and changes that observers make meanwhile, to all observers.
    /// Runs the deferred callbacks, including `callback` unless it is empty. Inside a delivery it
    /// only queues the callback for the outer run. Runs with both locks of the tree held; the
    /// callback must not throw.
    void callAllObserveHandlers(DataTree& tree, std::function<void()> callback);

protected:
    /// The data tree and its lock, for the class that assembles the tree.
    const std::shared_ptr<DataTree>& dataTree() const { return m_dataTree; }
    const std::shared_ptr<std::recursive_mutex>& dataLock() const { return m_dataLock; }

private:
    /// Makes the name of a message type.
    using TypeName = const std::string (*)();

    template <UnaryOps OpId, typename Message>
    UnaryHandlerReturnType<BaseMsgType> runCast(const std::string& key, Message&& inMsg) {
        const std::lock_guard<std::recursive_mutex> handlerGuard(*m_handlerLock);
        TreeNode& node = requireUnaryNode(OpId, key);
        traceCall(OpId, getTemplateTypeName<BaseMsgType>, getTemplateTypeName<BaseMsgType>);
        const std::lock_guard<std::recursive_mutex> dataGuard(*m_dataLock);
        m_dataTree->setKeyPattern(key);
        auto result =
            node.template callUnaryHandlerCast<OpId>(std::forward<Message>(inMsg), *m_dataTree);
        callAllObserveHandlers(*m_dataTree, {});
        return result;
    }

    // REQUIRES(*m_handlerLock)
    FunctionTree::iterator findUnaryNode(UnaryOps operation, const std::string& key);
    // REQUIRES(*m_handlerLock)
    TreeNode& requireUnaryNode(UnaryOps operation, const std::string& key);
    // REQUIRES(*m_handlerLock)
    std::shared_ptr<TreeNode> requireObserveNode(const std::string& key);
    // REQUIRES(*m_handlerLock, *m_dataLock)
    void deliverSnapshot(const std::shared_ptr<TreeNode>& node, std::any handle);
    /// The names are asked for only if the line is logged: they are long to build.
    void traceCall(UnaryOps operation, TypeName requestName, TypeName responseName) const;
    void runDeferredCallbacks();                      // REQUIRES(*m_handlerLock, *m_dataLock)
    void deliver(const ChangeSetType& changes);       // REQUIRES(*m_handlerLock, *m_dataLock)
    void traceChanges(const ChangeSetType& changes);  // REQUIRES(*m_dataLock)

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    // Constant. The objects that these refer to are shared with the registration interface of the
    // tree; the locks guard them.
    const std::shared_ptr<spdlog::logger> m_logger;
    const std::shared_ptr<std::recursive_mutex> m_handlerLock;
    const std::shared_ptr<std::recursive_mutex> m_dataLock;
    const std::shared_ptr<FunctionTree> m_functionTree;  // GUARDED_BY(*m_handlerLock)
    const std::shared_ptr<ObserveNodes> m_observeNodes;  // GUARDED_BY(*m_handlerLock)
    const std::shared_ptr<DataTree> m_dataTree;          // GUARDED_BY(*m_dataLock)

    bool m_callbacksBeingProcessed = false;                 // GUARDED_BY(*m_dataLock)
    std::deque<std::function<void()>> m_deferredCallbacks;  // GUARDED_BY(*m_dataLock)
};

}  // namespace Hox::ObserverTree
