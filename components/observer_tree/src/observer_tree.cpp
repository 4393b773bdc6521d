#include "hox/observer_tree/observer_tree.h"

#include <utility>

#include "hox/cpputil/regex/bounded_regex.h"
#include "hox/observer_tree/path_error.h"
#include "key_pattern_selector.h"
#include "obstree.pb.h"
#include "reg_ex_selector.h"

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

void ObserverTree::registerDefaultObserveHandler(const std::string& key) {
    // The observe handler first, as it may be refused; both at once, as every observer has to meet
    // both.
    const std::lock_guard<std::recursive_mutex> lock(*handlerLock());
    registerObserveHandler<ObserveReq>(
        key, [selector = std::make_shared<KeyPatternSelector>()](
                 const ChangeSetType& changes, const ObserverCallbackMap<ObserveReq>& observers) {
            selector->deliver(changes, observers);
        });
    registerNewObserverHandler<ObserveReq>(
        key, [](const ObserveReq& request, const ObserverCallback& callback) {
            try {
                PathManipulation().parsePath(PathType::KeyPattern, request.key_pattern());
            } catch (const PathError& error) {
                callback(ChangeSetType(), Status(ProtoStatus::INVALID_ARGUMENT, error.what()));
            }
        });
}

void ObserverTree::registerDefaultRegExObserveHandler(const std::string& key) {
    const std::lock_guard<std::recursive_mutex> lock(*handlerLock());
    registerObserveHandler<RegExObserveReq>(
        key,
        [](const ChangeSetType& changes, const ObserverCallbackMap<RegExObserveReq>& observers) {
            RegExSelector::deliver(changes, observers);
        });
    registerNewObserverHandler<RegExObserveReq>(
        key, [](const RegExObserveReq& request, const ObserverCallback& callback) {
            try {
                Hox::CppUtil::BoundedRegex{request.reg_ex()};
            } catch (const std::exception& error) {
                callback(ChangeSetType(), RegExSelector::refusal(request, error));
            }
        });
}

std::string ObserverTree::dumpDataTree() {
    // To the end: packing a value changes it.
    const std::lock_guard<std::recursive_mutex> lock(*dataLock());
    std::string text;
    for (const auto& [key, value] : *dataTree()) {
        text += "key: \"" + key + "\" value: " + (value ? value->toAny()->DebugString() : "None") +
                "\n";
    }
    return text;
}

}  // namespace Hox::ObserverTree
