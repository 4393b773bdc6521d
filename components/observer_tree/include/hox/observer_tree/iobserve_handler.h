#pragma once

namespace Hox::ObserverTree {

/// Decides which changes each observer of a node gets, and calls the observers.
///
/// For the tree's own use. An implementation keeps what it derives from an observer's request. All
/// operations run under the observer mutex of the node, which serialises them. They may throw
/// unless documented otherwise; the node documents the effect.
template <typename NodeType, typename InMsgType>
class IObserveHandler {
public:
    /// The node's record of an observer. Its address does not change from observerArrived to the
    /// end of observerLeft.
    using Observer = typename NodeType::template ObsCallbackStoredType<InMsgType>;
    /// All observers of a node, in the order in which they are called.
    using Observers = typename NodeType::template ObserverCallbackMap<InMsgType>;
    /// A change set.
    using Changes = typename NodeType::Changes;
    /// The tree that snapshots are taken of.
    using Tree = typename NodeType::Tree;

    IObserveHandler() = default;
    virtual ~IObserveHandler() = default;
    IObserveHandler(const IObserveHandler&) = delete;
    IObserveHandler(IObserveHandler&&) = delete;
    IObserveHandler& operator=(const IObserveHandler&) = delete;
    IObserveHandler& operator=(IObserveHandler&&) = delete;

    /// The observer is registered from now on. If this throws, it is not registered, and
    /// observerLeft is not called for it.
    virtual void observerArrived(const Observer& observer) = 0;

    /// An observer that had arrived is no longer registered. Must not throw.
    virtual void observerLeft(const Observer& observer) = 0;

    /// Calls each observer with its selection of the changes; `observers` holds all registered
    /// observers. If this throws, the observers that have not been called yet miss the changes.
    virtual void deliver(const Changes& changes, const Observers& observers) = 0;

    /// Calls this observer only.
    virtual void deliverTo(const Observer& observer, const Changes& changes) = 0;

    /// The current content of the tree for the observer, as new keys. It is passed to deliverTo
    /// later, maybe after other changes of the tree; an error of the selection must be reported
    /// there. Runs under the data lock as well.
    virtual Changes snapshotFor(const Observer& observer, const Tree& tree) = 0;
};

}  // namespace Hox::ObserverTree
