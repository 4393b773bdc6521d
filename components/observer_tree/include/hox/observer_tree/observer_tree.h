#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "hox/observer_tree/observer_tree_handler_reg.h"
#include "hox/observer_tree/observer_tree_ops.h"

namespace Hox::ObserverTree {

/// One data tree, one function tree, two locks and one delivery loop.
///
/// Lives as long as its owner. See the bases for threads and locks.
class ObserverTree : public ObserverTreeHandlerReg, public ObserverTreeOps {
public:
    /// An empty tree without handlers.
    ObserverTree();
    ~ObserverTree() override = default;
    ObserverTree(const ObserverTree&) = delete;
    ObserverTree(ObserverTree&&) = delete;
    ObserverTree& operator=(const ObserverTree&) = delete;
    ObserverTree& operator=(ObserverTree&&) = delete;

    /// Lets observers with an ObserveReq watch keys of the data tree by pattern. An observer with a
    /// malformed pattern gets one call, with INVALID_ARGUMENT and an empty change set, and no
    /// further calls. Throws like the registrations.
    void registerDefaultObserveHandler(const std::string& key);

    /// Lets observers with a RegExObserveReq watch the keys that match their expression as a whole.
    /// A malformed expression is answered like a malformed pattern. Throws like the registrations.
    void registerDefaultRegExObserveHandler(const std::string& key);

    /// One line per key with its value, in key order. Takes the data lock. For diagnosis.
    std::string dumpDataTree();

private:
    struct SharedState;
    explicit ObserverTree(const SharedState& state);

    template <typename InMsg, typename Selector>
    void registerSelector(const std::string& key);

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    std::shared_ptr<spdlog::logger> m_logger;
};

}  // namespace Hox::ObserverTree
