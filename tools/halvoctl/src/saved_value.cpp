#include "saved_value.h"

#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <optional>

#include "hox/observer_tree/persistence/value_text.h"
#include "printable.h"

namespace Hox::Ctl {

using google::protobuf::StringValue;

namespace {

/// The text of a value of the most common type; nothing for other values.
std::optional<StringValue> textIn(const std::string& text) {
    const google::protobuf::LogSilencer silencer;
    google::protobuf::Any value;
    StringValue plain;
    if (ObserverTree::valueFromText(text, value) && value.Is<StringValue>() &&
        value.UnpackTo(&plain)) {
        return plain;
    }
    return std::nullopt;
}

std::optional<google::protobuf::Value> jsonIn(const std::string& text) {
    const google::protobuf::LogSilencer silencer;
    google::protobuf::Value value;
    return google::protobuf::util::JsonStringToMessage(text, &value).ok() ? std::optional(value)
                                                                          : std::nullopt;
}

}  // namespace

std::string faultOf(const std::string& text) {
    const google::protobuf::LogSilencer silencer;
    google::protobuf::Any value;
    if (ObserverTree::valueFromText(text, value)) {
        return value.type_url().empty() ? "empty: a version that did not know its type has lost it"
                                        : "";
    }
    if (!jsonIn(text)) {
        return "no JSON: it is loaded as an empty value";
    }
    const bool hasType = text.find("\"@type\"") != std::string::npos;
    return hasType ? "" : "JSON without a type: it is loaded as an empty value";
}

std::string shownValue(const std::string& text) {
    const auto plain = textIn(text);
    std::string json;
    if (plain && google::protobuf::util::MessageToJsonString(*plain, &json).ok()) {
        return printable(json);
    }
    return printable(text);
}

std::string plainValue(const std::string& text) {
    const auto plain = textIn(text);
    return plain ? plain->value() : text;
}

google::protobuf::Value jsonValue(const std::string& text) {
    auto value = jsonIn(text);
    if (!value) {
        value.emplace().set_string_value(printable(text));
    }
    return *value;
}

}  // namespace Hox::Ctl
