#include "saved_value.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <optional>

#include "hox/observer_tree/persistence/value_text.h"
#include "printable.h"

namespace Hox::Ctl {

using google::protobuf::StringValue;

namespace {

const std::string misfit = "it does not fit its type: it is loaded as an empty value";

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

bool isKnown(const std::string& typeUrl) {
    std::string type;
    return google::protobuf::Any::ParseAnyTypeUrl(typeUrl, &type) &&
           google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(type) !=
               nullptr;
}

/// Whether the value is an empty text, but not by its saved form: the reader takes no text for an
/// empty one.
bool hasLostItsText(const google::protobuf::Any& value, const std::string& saved) {
    StringValue plain;
    if (!value.Is<StringValue>() || !value.UnpackTo(&plain) || !plain.value().empty()) {
        return false;
    }
    const auto members = ObserverTree::textMembersOf(saved);
    return members.count("value") == 0 && members.count("@bytes") == 0;
}

}  // namespace

std::string faultOf(const std::string& text) {
    const google::protobuf::LogSilencer silencer;
    google::protobuf::Any value;
    if (ObserverTree::valueFromText(text, value)) {
        if (value.type_url().empty()) {
            return "empty: a version that did not know its type has lost it";
        }
        return hasLostItsText(value, text) ? misfit : "";
    }
    if (!jsonIn(text)) {
        return "no JSON: it is loaded as an empty value";
    }
    const auto members = ObserverTree::textMembersOf(text);
    const auto type = members.find("@type");
    if (type == members.end()) {
        return "JSON without a type: it is loaded as an empty value";
    }
    return isKnown(type->second) ? misfit : "";
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
