#pragma once

#include <spdlog/fwd.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "hox/observer_tree/tree_types.h"

namespace Hox::ObserverTree {

/// The registration interface of a tree.
///
/// Callable at any time from any thread, also while the tree serves requests: a new node is visible
/// immediately. Each call takes the handler lock only, throws PathError for a malformed address,
/// and changes nothing on error. Nodes are never removed.
class ObserverTreeHandlerReg {
public:
    /// Shares the state of the tree.
    ObserverTreeHandlerReg(std::shared_ptr<FunctionTree> functionTree,
                           std::shared_ptr<std::recursive_mutex> handlerLock,
                           std::shared_ptr<ObserveNodes> observeNodes);
    virtual ~ObserverTreeHandlerReg() = default;
    ObserverTreeHandlerReg(const ObserverTreeHandlerReg&) = delete;
    ObserverTreeHandlerReg(ObserverTreeHandlerReg&&) = delete;
    ObserverTreeHandlerReg& operator=(const ObserverTreeHandlerReg&) = delete;
    ObserverTreeHandlerReg& operator=(ObserverTreeHandlerReg&&) = delete;

    /// Registers the handler of one unary operation: a UnaryHandler<InMsg, ReturnMsg>, or a similar
    /// handler that takes an InMsg&& and may move parts out of it. The latter gets a copy if the
    /// caller keeps the request. Throws DoubleRegistrationError if the address already has a
    /// handler for the operation; the first one stays.
    template <UnaryOps OpId, typename InMsg, typename ReturnMsg, typename Handler>
    void registerUnaryOpHandler(const std::string& key, Handler handler) {
        checkAddress(key);
        const std::lock_guard<std::recursive_mutex> lock(*m_handlerLock);
        findOrCreateNode(key, toString(OpId))
            ->template setUnaryHandler<OpId, InMsg, ReturnMsg>(std::move(handler));
    }

    /// Registers the handler that selects changes for the observers of the address. Throws
    /// DoubleRegistrationError if the address already has one.
    template <typename InMsg>
    void registerObserveHandler(const std::string& key, TreeNode::ObserveHandler<InMsg> handler) {
        addObserveNode<InMsg>(key, std::move(handler));
    }

    /// Registers the hook that runs when an observer arrives; replaces an earlier hook. With
    /// google::protobuf::Message as InMsg it serves every request type.
    template <typename InMsg>
    void registerNewObserverHandler(const std::string& key, TreeNode::ObserverHook<InMsg> handler) {
        checkAddress(key);
        const std::lock_guard<std::recursive_mutex> lock(*m_handlerLock);
        findOrCreateNode(key, observeText)
            ->template setNewObserverHandler<InMsg>(std::move(handler));
    }

    /// Registers the hook that runs when an observer leaves, on the thread that drops the handle.
    /// Otherwise like registerNewObserverHandler.
    template <typename InMsg>
    void registerObserverGoneHandler(const std::string& key,
                                     TreeNode::ObserverHook<InMsg> handler) {
        checkAddress(key);
        const std::lock_guard<std::recursive_mutex> lock(*m_handlerLock);
        findOrCreateNode(key, observeText)
            ->template setObserverGoneHandler<InMsg>(std::move(handler));
    }

protected:
    /// Like registerObserveHandler; also accepts an IObserveHandler.
    template <typename InMsg, typename Handler>
    void addObserveNode(const std::string& key, Handler handler) {
        checkAddress(key);
        const std::lock_guard<std::recursive_mutex> lock(*m_handlerLock);
        const auto node = findOrCreateNode(key, observeText);
        node->template setObserveHandler<InMsg>(std::move(handler));
        m_observeNodes->push_back(node);
    }

    /// The handler lock, for registrations that must be atomic.
    const std::shared_ptr<std::recursive_mutex>& handlerLock() const { return m_handlerLock; }

private:
    static constexpr const char* observeText = "OBSERVE";

    static void checkAddress(const std::string& key);

    // REQUIRES(*m_handlerLock)
    std::shared_ptr<TreeNode> findOrCreateNode(const std::string& key, const char* operationText);

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    // Constant. The objects that these refer to are shared with the operations of the tree; the
    // locks guard them.
    const std::shared_ptr<spdlog::logger> m_logger;
    const std::shared_ptr<std::recursive_mutex> m_handlerLock;
    const std::shared_ptr<FunctionTree> m_functionTree;  // GUARDED_BY(*m_handlerLock)
    const std::shared_ptr<ObserveNodes> m_observeNodes;  // GUARDED_BY(*m_handlerLock)
};

}  // namespace Hox::ObserverTree
