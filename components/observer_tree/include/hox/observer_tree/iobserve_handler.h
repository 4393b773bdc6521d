#pragma once

namespace Hox::ObserverTree {

/// Decides which changes each observer of a node is told of, and calls the observers.
///
/// For the tree's own use; whoever derives something from an observer's request keeps it in the
/// implementation. All operations run under the observer mutex of the node, which serialises them.
/// They may throw; the node tells in which case what happens.
template <typename NodeType, typename InMsgType>
class IObserveHandler {
public:
    /// What the node keeps of an observer. Records stay where they are from observerArrived to the
    /// end of observerLeft.
    using Observer = typename NodeType::template ObsCallbackStoredType<InMsgType>;
    /// All observers of a node, in the order in which they are called.
    using Observers = typename NodeType::template ObserverCallbackMap<InMsgType>;
    /// A change set.
    using Changes = typename NodeType::Changes;
    /// What snapshots are taken of.
    using Tree = typename NodeType::Tree;

    IObserveHandler() = default;
    virtual ~IObserveHandler() = default;
    IObserveHandler(const IObserveHandler&) = delete;
    IObserveHandler(IObserveHandler&&) = delete;
    IObserveHandler& operator=(const IObserveHandler&) = delete;
    IObserveHandler& operator=(IObserveHandler&&) = delete;

    /// The observer is there from now on. Where this throws, it has not come, and is not going to
    /// leave either.
    virtual void observerArrived(const Observer& observer) = 0;

    /// The observer, which has arrived before, is not there any more. Must not throw.
    virtual void observerLeft(const Observer& observer) = 0;

    /// Calls each of the observers, which are all that are there, with what it is to know of the
    /// changes. Where this throws, the observers that have not been called yet miss them.
    virtual void deliver(const Changes& changes, const Observers& observers) = 0;

    /// Calls this observer alone.
    virtual void deliverTo(const Observer& observer, const Changes& changes) = 0;

    /// What the tree holds for the observer now, as new keys. It is given to deliverTo later, maybe
    /// after other changes of the tree; what fails in selecting is to fail there. Runs under the
    /// data lock as well.
    virtual Changes snapshotFor(const Observer& observer, const Tree& tree) = 0;
};

}  // namespace Hox::ObserverTree
