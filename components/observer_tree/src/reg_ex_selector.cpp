#include "reg_ex_selector.h"

#include <memory>
#include <optional>

#include "hox/cpputil/regex/bounded_regex.h"

namespace Hox::ObserverTree {

namespace {

using Hox::CppUtil::BoundedRegex;

/// Empty for a malformed expression; its observer was told when it arrived.
using Expression = std::optional<BoundedRegex>;

std::shared_ptr<Expression> compile(const std::string& text) {
    auto expression = std::make_shared<Expression>();
    try {
        expression->emplace(text);
    } catch (const std::exception&) {
        expression->reset();
    }
    return expression;
}

}  // namespace

void RegExSelector::deliver(const ChangeSetType& changes,
                            const ObserverCallbackMap<RegExObserveReq>& observers) {
    for (const auto& [address, observer] : observers) {
        if (!observer.derived) {
            observer.derived = compile(observer.request->reg_ex());
        }
        auto& expression = *static_cast<Expression*>(observer.derived.get());
        if (!expression) {
            continue;
        }
        ChangeSetType selected;
        for (const auto& change : changes) {
            if (change.first.size() <= BoundedRegex::maxSubjectSize &&
                expression->matches(change.first)) {
                selected.emplace_hint(selected.end(), change);
            }
        }
        if (!selected.empty()) {
            (*observer.observeCallback)(selected, Status());
        }
    }
}

}  // namespace Hox::ObserverTree
