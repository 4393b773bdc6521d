#pragma once

#include <utility>

#include "hox/observer_tree/iobserve_handler.h"
#include "hox/observer_tree/snapshot.h"

namespace Hox::ObserverTree {

/// Leaves everything to a function, which gets all observers or the single one.
template <typename NodeType, typename InMsgType>
class FunctionObserveHandler final : public IObserveHandler<NodeType, InMsgType> {
    using Base = IObserveHandler<NodeType, InMsgType>;

public:
    using typename Base::Changes;
    using typename Base::Observer;
    using typename Base::Observers;
    using typename Base::Tree;
    using Function = typename NodeType::template ObserveHandler<InMsgType>;

    /// Every delivery calls the function.
    explicit FunctionObserveHandler(Function function) : m_function(std::move(function)) {}

    void observerArrived(const Observer& /*observer*/) override {}
    void observerLeft(const Observer& /*observer*/) override {}

    void deliver(const Changes& changes, const Observers& observers) override {
        m_function(changes, observers);
    }

    void deliverTo(const Observer& observer, const Changes& changes) override {
        m_function(changes, {{observer.observeCallback.get(), observer}});
    }

    Changes snapshotFor(const Observer& /*observer*/, const Tree& tree) override {
        Changes snapshot;
        addToSnapshot(snapshot, tree, [](const auto& /*key*/) { return true; });
        return snapshot;
    }

private:
    Function m_function;
};

}  // namespace Hox::ObserverTree
