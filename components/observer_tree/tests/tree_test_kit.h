#pragma once

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "hox/observer_tree/observer_tree.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree::TestKit {

using google::protobuf::Int64Value;
using google::protobuf::StringValue;

inline StringValue message(const std::string& text) {
    StringValue result;
    result.set_value(text);
    return result;
}

inline Int64Value number(int64_t value) {
    Int64Value result;
    result.set_value(value);
    return result;
}

inline ObserveReq pattern(const std::string& keyPattern) {
    ObserveReq result;
    result.set_key_pattern(keyPattern);
    return result;
}

/// A value in the form that the tree holds.
inline DataTreeValPtr value(const std::string& text) {
    return std::make_shared<const DataTreeVal>(message(text));
}

/// The text of such a value, "null" for a null pointer.
inline std::string textOf(const DataTreeValPtr& held) {
    return held ? held->get<StringValue>().value() : "null";
}

/// One line per change, "key: previous -> current".
inline std::vector<std::string> linesOf(const ChangeSetType& changes) {
    std::vector<std::string> lines;
    for (const auto& [key, keyChanges] : changes) {
        for (const auto& change : keyChanges) {
            lines.push_back(key + ": " + textOf(change.previous) + " -> " + textOf(change.current));
        }
    }
    return lines;
}

/// A change set of new keys, each with its own name as the value.
inline ChangeSetType newKeys(const std::vector<std::string>& keys) {
    ChangeSetType changes;
    for (const auto& key : keys) {
        changes[key] = {ChangeSetMapVal{value(key), nullptr}};
    }
    return changes;
}

/// The text of an error without its location, if it ends in "(<...>file:<line>)" with this file;
/// otherwise the unchanged text.
inline std::string withoutLocation(const std::string& what, const std::string& file) {
    const auto open = what.rfind('(');
    if (open == std::string::npos || what.back() != ')') {
        return what;
    }
    const auto location = what.substr(open + 1, what.size() - open - 2);
    const auto colon = location.rfind(':');
    const auto path = location.substr(0, colon);
    const auto line = colon == std::string::npos ? "" : location.substr(colon + 1);
    const bool isPlace =
        path.size() > file.size() &&
        path.compare(path.size() - file.size() - 1, std::string::npos, "/" + file) == 0 &&
        !line.empty() &&
        std::all_of(line.begin(), line.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    return isPlace ? what.substr(0, open) : what;
}

/// The text of the ErrorType that the call throws, "nothing thrown" if it returns.
template <typename ErrorType>
std::string thrownBy(const std::function<void()>& call) {
    try {
        call();
    } catch (const ErrorType& error) {
        return error.what();
    }
    return "nothing thrown";
}

/// The same without the location, which must be in this file.
template <typename ErrorType>
std::string thrownBy(const std::function<void()>& call, const std::string& file) {
    return withoutLocation(thrownBy<ErrorType>(call), file);
}

/// Records the calls of an observer: "/a: null -> x, /b: ...", followed by " !<code> <text>" if the
/// status is not OK.
class Observations {
public:
    ObserverCallback callback() {
        return [this](const ChangeSetType& changes, const Status& status) { add(changes, status); };
    }

    const std::vector<std::string>& calls() const { return m_calls; }

    std::vector<std::string> take() { return std::exchange(m_calls, {}); }

private:
    void add(const ChangeSetType& changes, const Status& status) {
        std::string call;
        for (const auto& line : linesOf(changes)) {
            call += (call.empty() ? "" : ", ") + line;
        }
        if (!status.isOk() || !status.errorMessage().empty()) {
            call += " !" + ProtoStatus::StatusCode_Name(status.statusCode()) + " " +
                    status.errorMessage();
        }
        m_calls.push_back(call);
    }

    std::vector<std::string> m_calls;
};

/// Registers an UPDATE handler of StringValue that runs the action and answers OK.
inline void onUpdate(ObserverTree& tree, const std::string& address,
                     std::function<void(const std::string& text, DataTree& data)> act) {
    tree.registerUnaryOpHandler<UnaryOps::UPDATE, StringValue, StringValue>(
        address, [act = std::move(act)](const StringValue& request, DataTree& data) {
            act(request.value(), data);
            return UnaryHandlerReturnType<StringValue>{std::make_unique<StringValue>(), Status()};
        });
}

/// Registers an UPDATE handler that writes the request's text under the key.
inline void onUpdateWrite(ObserverTree& tree, const std::string& address, const std::string& key) {
    onUpdate(tree, address, [key](const std::string& text, DataTree& data) {
        data.insert_or_assign(key, value(text));
    });
}

/// Calls such a handler.
inline UnaryHandlerReturnType<StringValue> update(ObserverTree& tree, const std::string& address,
                                                  const std::string& text = "") {
    return tree.callApiOp<UnaryOps::UPDATE, StringValue, StringValue>(address, message(text));
}

/// A key or a pattern of up to five components out of the choice.
inline std::string randomPath(std::mt19937& random, const std::vector<std::string>& choice) {
    std::string path;
    for (auto rest = std::uniform_int_distribution<>(0, 5)(random); rest > 0; --rest) {
        const auto last = choice.size() - 1;
        path += "/" + choice.at(std::uniform_int_distribution<std::size_t>(0, last)(random));
    }
    return path.empty() ? "/" : path;
}

}  // namespace Hox::ObserverTree::TestKit
