#include "reg_ex_selector.h"

#include <memory>
#include <optional>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/cpputil/regex/bounded_regex.h"

namespace Hox::ObserverTree {

namespace {

using Hox::CppUtil::BoundedRegex;

/// Empty for an expression that was refused; its observer was told.
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

ChangeSetType select(const ChangeSetType& changes, BoundedRegex& expression) {
    ChangeSetType selected;
    for (const auto& change : changes) {
        if (change.first.size() <= BoundedRegex::maxSubjectSize &&
            expression.matches(change.first)) {
            selected.emplace_hint(selected.end(), change);
        }
    }
    return selected;
}

}  // namespace

Status RegExSelector::refusal(const RegExObserveReq& request, const std::exception& error) {
    return {ProtoStatus::INVALID_ARGUMENT, "Regular expression error, regex \"" + request.reg_ex() +
                                               "\" not valid - " + error.what()};
}

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
        try {
            selected = select(changes, *expression);
        } catch (const Hox::CppUtil::InvalidArgumentError& error) {
            expression.reset();
            (*observer.observeCallback)(selected, refusal(*observer.request, error));
        }
        if (!selected.empty()) {
            (*observer.observeCallback)(selected, Status());
        }
    }
}

}  // namespace Hox::ObserverTree
