#pragma once

#include <any>
#include <array>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/error/error.h"
#include "hox/cpputil/log/logger_name.h"
#include "hox/cpputil/type/type_name.h"
#include "hox/observer_tree/double_registration_error.h"
#include "hox/observer_tree/function_observe_handler.h"
#include "hox/observer_tree/iobserve_handler.h"
#include "hox/observer_tree/message_ptr.h"
#include "hox/observer_tree/node_log.h"
#include "hox/observer_tree/unary_ops.h"

namespace Hox::ObserverTree {

/// The handlers of one function tree address, at most one per operation, and its observers.
///
/// Every operation has a typed form, for the capability's own messages, and a cast form, for
/// callers that know messages by descriptor only. Handlers are set, and unary handlers run, under
/// the handler lock of the tree. Nodes are held by std::shared_ptr; a handle that outlives its node
/// has no effect.
template <typename BaseMsgType, typename TreeType, typename NodesChangedType, typename StatusType>
class CRURONode : public std::enable_shared_from_this<
                      CRURONode<BaseMsgType, TreeType, NodesChangedType, StatusType>> {
public:
    /// A change set.
    using Changes = NodesChangedType;
    /// The tree that handlers read and write.
    using Tree = TreeType;

    /// The return type of a unary handler. The message is valid only with an OK status.
    template <typename ReturnMsgType>
    struct UnaryHandlerReturnType {
        MessagePtr<ReturnMsgType> message;
        StatusType status;
    };

    /// Serves one operation. Reports a failure by its status and never throws.
    template <typename InMsg, typename ReturnMsg>
    using UnaryHandler = std::function<UnaryHandlerReturnType<ReturnMsg>(const InMsg&, TreeType&)>;

    /// The callback of an observer. Runs on the thread that changes the tree, under its locks. It
    /// must not throw, must not wait for another thread that needs the tree, must not observe at
    /// its own node, and must not drop the last copy of a handle of that node.
    using ObserverCallback = std::function<void(const NodesChangedType&, const StatusType&)>;

    /// One observer: its callback and its own copy of its request.
    template <typename InMsgType>
    struct ObsCallbackStoredType {
        std::shared_ptr<ObserverCallback> observeCallback;
        std::shared_ptr<InMsgType> request;
    };

    /// The observers of a node, keyed by the address of their callback object.
    template <typename InMsgType>
    using ObserverCallbackMap = std::map<void*, ObsCallbackStoredType<InMsgType>>;

    /// An observer is registered exactly as long as a copy of this pointer exists.
    template <typename InMsgType>
    using ObserveRaiiHandleType = std::shared_ptr<ObsCallbackStoredType<InMsgType>>;

    /// Selects the changes for each observer and calls it. Runs under the observer mutex.
    template <typename InMsgType>
    using ObserveHandler =
        std::function<void(const NodesChangedType&, const ObserverCallbackMap<InMsgType>&)>;

    /// Runs when an observer arrives or leaves, outside the observer mutex.
    template <typename InMsgType>
    using ObserverHook = std::function<void(const InMsgType&, const ObserverCallback&)>;

    /// A node without handlers and observers.
    CRURONode() : m_log(_HALVOMACRO_loggerName()) {}
    virtual ~CRURONode() = default;
    CRURONode(const CRURONode&) = delete;
    CRURONode(CRURONode&&) = delete;
    CRURONode& operator=(const CRURONode&) = delete;
    CRURONode& operator=(CRURONode&&) = delete;

    /// Sets the handler of an operation. Throws DoubleRegistrationError if there is one already;
    /// the first one stays. A handler that a UnaryHandler can hold only reads its request. A
    /// handler whose first parameter is an InMsg&& takes over its request, or a copy if the caller
    /// keeps the request.
    template <UnaryOps OpId, typename InMsg, typename ReturnMsg, typename Handler>
    void setUnaryHandler(Handler handler);

    /// Sets the observe handler. Throws DoubleRegistrationError if there is one already.
    template <typename InMsg>
    void setObserveHandler(std::shared_ptr<IObserveHandler<CRURONode, InMsg>> handler);

    /// The same for a function.
    template <typename InMsg>
    void setObserveHandler(ObserveHandler<InMsg> handler) {
        setObserveHandler<InMsg>(
            std::make_shared<FunctionObserveHandler<CRURONode, InMsg>>(std::move(handler)));
    }

    /// Sets the hook that runs when an observer arrives; replaces an earlier hook. A hook for
    /// BaseMsgType serves every request type.
    template <typename InMsg>
    void setNewObserverHandler(ObserverHook<InMsg> handler);

    /// Sets the hook that runs when an observer leaves; otherwise like setNewObserverHandler.
    template <typename InMsg>
    void setObserverGoneHandler(ObserverHook<InMsg> handler);

    /// Whether the operation has a handler.
    bool hasUnaryHandler(UnaryOps operation) const {
        return slot(m_unaryHandlers, operation).has_value();
    }

    /// Runs the handler. An exception is logged, fails an assertion and is rethrown; this includes
    /// std::bad_any_cast for message types other than the registered ones.
    template <UnaryOps OpId, typename InMsgType, typename ReturnMsgType>
    UnaryHandlerReturnType<ReturnMsgType> callUnaryHandler(const InMsgType& inMsg, TreeType& tree);

    /// The same by descriptor. Throws std::bad_cast for another message type.
    template <UnaryOps OpId>
    UnaryHandlerReturnType<BaseMsgType> callUnaryHandlerCast(const BaseMsgType& inMsg,
                                                             TreeType& tree) {
        return callCastHandler(OpId, {inMsg, nullptr}, tree);
    }

    /// The same for a request that is not read afterwards. If a handler that has taken over the
    /// request fails, the log shows only the type of the request.
    template <UnaryOps OpId>
    UnaryHandlerReturnType<BaseMsgType> callUnaryHandlerCast(BaseMsgType&& inMsg, TreeType& tree) {
        return callCastHandler(OpId, {inMsg, &inMsg}, tree);
    }

    /// Registers an observer for the lifetime of the handle. An exception is logged, fails an
    /// assertion and is rethrown. The handle may be dropped on any thread; dropping it waits for a
    /// delivery in progress.
    template <typename InMsgType>
    ObserveRaiiHandleType<InMsgType> observe(const InMsgType& inMsg, ObserverCallback callback);

    /// The same by descriptor; the result holds the handle. Asserts that an observe handler or a
    /// hook is registered.
    std::any observeCast(const BaseMsgType& inMsg, ObserverCallback callback) {
        HOX_ASSERT(static_cast<bool>(m_observeCastHandler));
        return m_observeCastHandler(inMsg, std::move(callback));
    }

    /// Delivers the changes to all observers, or to the one whose handle `singleObserver` holds. An
    /// exception is logged and fails an assertion; it is not rethrown.
    void callObserveHandler(const NodesChangedType& changes, const std::any& singleObserver);

    /// The first change set for the observer whose handle `singleObserver` holds, to be passed to
    /// callObserveHandler. Empty without an observe handler. Runs under both locks of the tree.
    NodesChangedType snapshotFor(const std::any& singleObserver, const TreeType& tree);

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        // The compiler's text would contain the template arguments.
        return Hox::Log::loggerName("Hox::ObserverTree::CRURONode", __FILE__);
    };

private:
    /// A request by descriptor that is passed to a handler.
    struct CastRequest {
        const BaseMsgType& message;
        BaseMsgType* givenOver;  ///< The same message; null if the caller keeps it.
        bool isTaken = false;    ///< Whether a handler has taken over that message.
    };

    using CastHandler = std::function<UnaryHandlerReturnType<BaseMsgType>(CastRequest&, TreeType&)>;

    template <typename SlotsType>
    static auto& slot(SlotsType& slots, UnaryOps operation) {
        return slots.at(static_cast<std::size_t>(operation));
    }

    /// The observe handler. Throws std::bad_any_cast if the handler has another request type.
    template <typename InMsg>
    IObserveHandler<CRURONode, InMsg>& observeHandler() {  // REQUIRES(m_observerMutex)
        using Handler = std::shared_ptr<IObserveHandler<CRURONode, InMsg>>;
        return *std::any_cast<const Handler&>(m_observeHandler);
    }

    template <typename InMsg>
    ObserverCallbackMap<InMsg>& observers() {  // REQUIRES(m_observerMutex)
        return std::any_cast<ObserverCallbackMap<InMsg>&>(m_observerCallbackMap);
    }

    template <typename InMsg>
    void addObserver(const ObsCallbackStoredType<InMsg>& observer);

    // REQUIRES(m_observerMutex)
    template <typename InMsg>
    const ObsCallbackStoredType<InMsg>* findObserver(const std::any& singleObserver);

    // REQUIRES(m_observerMutex)
    template <typename InMsg>
    void callTypedObserveHandler(const NodesChangedType& changes, const std::any& singleObserver);

    template <typename InMsg>
    void setObserveCastHandler();

    template <typename InMsg>
    void setHook(ObserverHook<InMsg> handler, ObserverHook<BaseMsgType>& hook);

    template <typename InMsg>
    void runHook(const ObserverHook<BaseMsgType>& hook,
                 const ObsCallbackStoredType<InMsg>& observer);

    template <typename InMsg>
    void release(const ObsCallbackStoredType<InMsg>& observer);

    UnaryHandlerReturnType<BaseMsgType> callCastHandler(UnaryOps operation, CastRequest request,
                                                        TreeType& tree);

    void logFailure(const std::string& text, const char* label, const std::string& message) {
        m_log.callFailed(text, label, message);
        HOX_ASSERT(false);
    }

    // Constant.
    const NodeLog m_log;

    // Set by registrations; guarded by the handler lock of the tree.
    std::array<std::any, unaryOpsCount> m_unaryHandlers;
    std::array<CastHandler, unaryOpsCount> m_unaryCastHandlers;
    std::function<void(const NodesChangedType&, const std::any&)> m_callObserveHandler;
    std::function<NodesChangedType(const std::any&, const TreeType&)> m_snapshotFor;
    std::function<std::any(const BaseMsgType&, ObserverCallback)> m_observeCastHandler;

    /// Last in the lock order, after the locks of the tree; not recursive.
    std::mutex m_observerMutex;
    std::any m_observeHandler;       // GUARDED_BY(m_observerMutex)
    std::any m_observerCallbackMap;  // GUARDED_BY(m_observerMutex)

    /// Never held together with another lock, and only while hooks are set or copied: a handle may
    /// be dropped without any lock.
    std::mutex m_hookMutex;
    ObserverHook<BaseMsgType> m_newObserverHandler;   // GUARDED_BY(m_hookMutex)
    ObserverHook<BaseMsgType> m_observerGoneHandler;  // GUARDED_BY(m_hookMutex)
};

template <typename B, typename T, typename N, typename S>
template <UnaryOps OpId, typename InMsg, typename ReturnMsg, typename Handler>
void CRURONode<B, T, N, S>::setUnaryHandler(Handler handler) {
    using Result = UnaryHandlerReturnType<ReturnMsg>;
    if (hasUnaryHandler(OpId)) {
        throw DoubleRegistrationError(
            std::string("Only allowed to register one ") + toString(OpId) + "operation.\n",
            __FILE__, __LINE__);
    }
    const auto toBase = [](Result result) {
        return UnaryHandlerReturnType<B>{std::move(result.message), std::move(result.status)};
    };
    if constexpr (std::is_invocable_r_v<Result, Handler&, const InMsg&, T&>) {
        UnaryHandler<InMsg, ReturnMsg> typed(std::move(handler));
        slot(m_unaryCastHandlers, OpId) = [typed, toBase](CastRequest& request, T& tree) {
            return toBase(typed(dynamic_cast<const InMsg&>(request.message), tree));
        };
        slot(m_unaryHandlers, OpId) = std::move(typed);
    } else {
        std::function<Result(InMsg&&, T&)> taking(std::move(handler));
        slot(m_unaryCastHandlers, OpId) = [taking, toBase](CastRequest& request, T& tree) {
            if (request.givenOver == nullptr) {
                return toBase(taking(InMsg(dynamic_cast<const InMsg&>(request.message)), tree));
            }
            auto& inMsg = dynamic_cast<InMsg&>(*request.givenOver);
            request.isTaken = true;
            return toBase(taking(std::move(inMsg), tree));
        };
        slot(m_unaryHandlers, OpId) = UnaryHandler<InMsg, ReturnMsg>(
            [taking = std::move(taking)](const InMsg& inMsg, T& tree) {
                return taking(InMsg(inMsg), tree);
            });
    }
}

template <typename B, typename T, typename N, typename S>
template <typename InMsg>
void CRURONode<B, T, N, S>::setObserveHandler(
    std::shared_ptr<IObserveHandler<CRURONode, InMsg>> handler) {
    if (m_callObserveHandler) {
        throw DoubleRegistrationError("Only allowed to register one observe handler function",
                                      __FILE__, __LINE__);
    }
    setObserveCastHandler<InMsg>();
    const std::lock_guard<std::mutex> lock(m_observerMutex);
    m_observeHandler = std::move(handler);
    m_observerCallbackMap = ObserverCallbackMap<InMsg>();
    m_callObserveHandler = [this](const N& changes, const std::any& singleObserver) {
        callTypedObserveHandler<InMsg>(changes, singleObserver);
    };
    m_snapshotFor = [this](const std::any& singleObserver, const T& tree) {
        const auto* observer = findObserver<InMsg>(singleObserver);
        return observer == nullptr ? N() : observeHandler<InMsg>().snapshotFor(*observer, tree);
    };
}

template <typename B, typename T, typename N, typename S>
template <typename InMsg>
void CRURONode<B, T, N, S>::callTypedObserveHandler(const N& changes,
                                                    const std::any& singleObserver) {
    if (!singleObserver.has_value()) {
        observeHandler<InMsg>().deliver(changes, observers<InMsg>());
    } else if (const auto* observer = findObserver<InMsg>(singleObserver)) {
        observeHandler<InMsg>().deliverTo(*observer, changes);
    }
}

template <typename B, typename T, typename N, typename S>
template <typename InMsg>
auto CRURONode<B, T, N, S>::findObserver(const std::any& singleObserver)
    -> const ObsCallbackStoredType<InMsg>* {
    const auto& observeMap = observers<InMsg>();
    const auto& handle = std::any_cast<const ObserveRaiiHandleType<InMsg>&>(singleObserver);
    const auto callbackIter = observeMap.find(handle->observeCallback.get());
    HOX_ASSERT(callbackIter != observeMap.end());
    return callbackIter == observeMap.end() ? nullptr : &callbackIter->second;
}

template <typename B, typename T, typename N, typename S>
template <typename InMsg>
void CRURONode<B, T, N, S>::setNewObserverHandler(ObserverHook<InMsg> handler) {
    if (!m_observeCastHandler) {
        setObserveCastHandler<InMsg>();
    }
    setHook<InMsg>(std::move(handler), m_newObserverHandler);
}

template <typename B, typename T, typename N, typename S>
template <typename InMsg>
void CRURONode<B, T, N, S>::setObserverGoneHandler(ObserverHook<InMsg> handler) {
    if (!m_observeCastHandler) {
        setObserveCastHandler<InMsg>();
    }
    setHook<InMsg>(std::move(handler), m_observerGoneHandler);
}

template <typename B, typename T, typename N, typename S>
template <typename InMsg>
void CRURONode<B, T, N, S>::setHook(ObserverHook<InMsg> handler, ObserverHook<B>& hook) {
    const std::lock_guard<std::mutex> lock(m_hookMutex);
    hook = [handler = std::move(handler)](const B& request, const ObserverCallback& callback) {
        handler(dynamic_cast<const InMsg&>(request), callback);
    };
}

template <typename B, typename T, typename N, typename S>
template <typename InMsg>
void CRURONode<B, T, N, S>::setObserveCastHandler() {
    m_observeCastHandler = [this](const B& inMsg, ObserverCallback callback) -> std::any {
        return observe<InMsg>(dynamic_cast<const InMsg&>(inMsg), std::move(callback));
    };
}

template <typename B, typename T, typename N, typename S>
template <UnaryOps OpId, typename InMsgType, typename ReturnMsgType>
auto CRURONode<B, T, N, S>::callUnaryHandler(const InMsgType& inMsg, T& tree)
    -> UnaryHandlerReturnType<ReturnMsgType> {
    try {
        using Handler = UnaryHandler<InMsgType, ReturnMsgType>;
        return std::any_cast<const Handler&>(slot(m_unaryHandlers, OpId))(inMsg, tree);
    } catch (const std::exception& error) {
        logFailure(std::string("Caught exception in Observer Tree CRUR Callback:\nOperation ") +
                       toString(OpId) + ": " + getTemplateTypeName<InMsgType>() + " -> " +
                       getTemplateTypeName<ReturnMsgType>() + "\n" + error.what(),
                   "msg", inMsg.DebugString());
        throw;
    }
}

template <typename B, typename T, typename N, typename S>
auto CRURONode<B, T, N, S>::callCastHandler(UnaryOps operation, CastRequest request, T& tree)
    -> UnaryHandlerReturnType<B> {
    try {
        return slot(m_unaryCastHandlers, operation)(request, tree);
    } catch (const std::exception& error) {
        logFailure(
            std::string("It is forbidden to throw exceptions from crur handler callbacks - ") +
                error.what(),
            "msg",
            request.isTaken ? request.message.GetTypeName() + ", taken over by its handler"
                            : request.message.DebugString());
        throw;
    }
}

template <typename B, typename T, typename N, typename S>
template <typename InMsgType>
auto CRURONode<B, T, N, S>::observe(const InMsgType& inMsg, ObserverCallback callback)
    -> ObserveRaiiHandleType<InMsgType> {
    using Stored = ObsCallbackStoredType<InMsgType>;
    try {
        const Stored observer{std::make_shared<ObserverCallback>(std::move(callback)),
                              std::shared_ptr<InMsgType>(inMsg.New())};
        observer.request->CopyFrom(inMsg);
        auto record = std::make_unique<Stored>(observer);
        addObserver<InMsgType>(observer);
        ObserveRaiiHandleType<InMsgType> handle(
            record.release(),
            [weakNode = this->weak_from_this()](Stored* storedTypeObserverCallback) {
                const std::unique_ptr<Stored> owned(storedTypeObserverCallback);
                if (const auto node = weakNode.lock()) {
                    node->template release<InMsgType>(*owned);
                }
            });
        runHook<InMsgType>(m_newObserverHandler, observer);
        return handle;
    } catch (const std::exception& error) {
        logFailure(
            std::string(
                "It is forbidden to throw exceptions from observe handlers and callbacks - ") +
                error.what(),
            "inMsg", inMsg.DebugString());
        throw;
    }
}

template <typename B, typename T, typename N, typename S>
template <typename InMsg>
void CRURONode<B, T, N, S>::addObserver(const ObsCallbackStoredType<InMsg>& observer) {
    const std::lock_guard<std::mutex> lock(m_observerMutex);
    if (!m_observerCallbackMap.has_value()) {
        return;
    }
    auto& known = observers<InMsg>();
    const auto position = known.emplace(observer.observeCallback.get(), observer).first;
    try {
        observeHandler<InMsg>().observerArrived(position->second);
    } catch (...) {
        known.erase(position);
        throw;
    }
}

template <typename B, typename T, typename N, typename S>
template <typename InMsg>
void CRURONode<B, T, N, S>::runHook(const ObserverHook<B>& hook,
                                    const ObsCallbackStoredType<InMsg>& observer) {
    ObserverHook<B> current;
    {
        const std::lock_guard<std::mutex> lock(m_hookMutex);
        current = hook;
    }
    if (current) {
        current(*observer.request, *observer.observeCallback);
    }
}

template <typename B, typename T, typename N, typename S>
template <typename InMsgType>
void CRURONode<B, T, N, S>::release(const ObsCallbackStoredType<InMsgType>& observer) {
    const auto* storedTypeObserverCallback = &observer;
    runHook<InMsgType>(m_observerGoneHandler, observer);
    const std::lock_guard<std::mutex> lock(m_observerMutex);
    if (m_observerCallbackMap.has_value()) {
        const auto known = observers<InMsgType>().find(observer.observeCallback.get());
        if (known != observers<InMsgType>().end()) {
            observeHandler<InMsgType>().observerLeft(known->second);
        }
        // The line break makes the blank in the text of the report.
        HOX_ASSERT(std::any_cast<ObserverCallbackMap<InMsgType>&>(m_observerCallbackMap)
                       .erase((*storedTypeObserverCallback).observeCallback.get()));
    }
}

template <typename B, typename T, typename N, typename S>
void CRURONode<B, T, N, S>::callObserveHandler(const N& changes, const std::any& singleObserver) {
    if (changes.empty() || !m_callObserveHandler) {
        return;
    }
    try {
        const std::lock_guard<std::mutex> lock(m_observerMutex);
        m_callObserveHandler(changes, singleObserver);
    } catch (const std::exception& error) {
        m_log.deliveryFailed(error.what());
        HOX_ASSERT(false);
    }
}

template <typename B, typename T, typename N, typename S>
N CRURONode<B, T, N, S>::snapshotFor(const std::any& singleObserver, const T& tree) {
    if (!m_snapshotFor) {
        return N();
    }
    const std::lock_guard<std::mutex> lock(m_observerMutex);
    return m_snapshotFor(singleObserver, tree);
}

}  // namespace Hox::ObserverTree
