#include "hox/observer_tree/observer_tree.h"

#include <utility>

#include "key_pattern_selector.h"
#include "obstree.pb.h"
#include "reg_ex_selector.h"

#include "hox/cpputil/log/logsystem.h"

namespace Hox::ObserverTree {

struct ObserverTree::SharedState {
    std::shared_ptr<FunctionTree> functionTree = std::make_shared<FunctionTree>();
    std::shared_ptr<std::recursive_mutex> handlerLock = std::make_shared<std::recursive_mutex>();
    std::shared_ptr<DataTree> dataTree = std::make_shared<DataTree>();
    std::shared_ptr<std::recursive_mutex> dataLock = std::make_shared<std::recursive_mutex>();
    std::shared_ptr<ObserveNodes> observeNodes = std::make_shared<ObserveNodes>();
};

ObserverTree::ObserverTree() : ObserverTree(SharedState()) {}

ObserverTree::ObserverTree(const SharedState& state)
    : ObserverTreeHandlerReg(state.functionTree, state.handlerLock, state.observeNodes),
      ObserverTreeOps(state.functionTree, state.handlerLock, state.dataTree, state.dataLock,
                      state.observeNodes),
      m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())) {}

template <typename InMsg, typename Selector>
void ObserverTree::registerSelector(const std::string& key) {
    // The observe handler first, because it may be refused. Both under one lock, because every
    // observer must find both.
    const std::lock_guard<std::recursive_mutex> lock(*handlerLock());
    const auto selector = std::make_shared<Selector>();
    addObserveNode<InMsg>(key, selector);
    registerNewObserverHandler<InMsg>(
        key, [selector](const InMsg& /*request*/, const ObserverCallback& callback) {
            if (const auto refusal = selector->takeRefusal()) {
                callback(ChangeSetType(), *refusal);
            }
        });
}

void ObserverTree::registerDefaultObserveHandler(const std::string& key) {
    registerSelector<ObserveReq, KeyPatternSelector>(key);
}

void ObserverTree::registerDefaultRegExObserveHandler(const std::string& key) {
    registerSelector<RegExObserveReq, RegExSelector>(key);
}

std::string ObserverTree::dumpDataTree() {
    // Held to the end: packing changes a value.
    const std::lock_guard<std::recursive_mutex> lock(*dataLock());
    std::string text;
    for (const auto& [key, value] : *dataTree()) {
        text += "key: \"" + key + "\" value: " + (value ? value->toAny()->DebugString() : "None") +
                "\n";
    }
    return text;
}

}  // namespace Hox::ObserverTree
