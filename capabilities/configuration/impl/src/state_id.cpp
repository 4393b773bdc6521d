#include "state_id.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string_view>

#include "hox/cpputil/error/error.h"
#include "hox/cpputil/string/string_utils.h"

namespace Hox::Capability::Configuration {

using google::protobuf::Any;
using google::protobuf::StringValue;

namespace {

// The text around a state id in the JSON of its packed StringValue.
constexpr std::string_view jsonStart =
    R"({"@type":"type.googleapis.com/google.protobuf.StringValue","value":")";
constexpr std::string_view jsonEnd = R"("})";

std::string toJson(const std::string& stateId) {
    std::string json;
    // A number needs no escaping in JSON; every state id of this service is a number.
    if (Hox::CppUtil::str_isonly_digits(stateId)) {
        return json.append(jsonStart).append(stateId).append(jsonEnd);
    }
    StringValue text;
    text.set_value(stateId);
    Any packed;
    packed.PackFrom(text);
    static_cast<void>(google::protobuf::util::MessageToJsonString(packed, &json));
    return json;
}

std::optional<std::string> fromJson(std::string_view json) {
    const std::size_t frame = jsonStart.size() + jsonEnd.size();
    if (json.size() > frame && json.substr(0, jsonStart.size()) == jsonStart &&
        json.substr(json.size() - jsonEnd.size()) == jsonEnd) {
        std::string stateId(json.substr(jsonStart.size(), json.size() - frame));
        if (Hox::CppUtil::str_isonly_digits(stateId)) {
            return stateId;
        }
    }
    Any packed;
    StringValue text;
    if (google::protobuf::util::JsonStringToMessage({json.data(), json.size()}, &packed).ok() &&
        packed.UnpackTo(&text)) {
        return text.value();
    }
    return std::nullopt;
}

std::optional<std::string> valueToStateId(const Hox::ObserverTree::DataTreeVal& value) {
    try {
        return fromJson(value.get<StringValue>().value());
    } catch (const Hox::Error&) {
        // This service does not write this form.
        return std::nullopt;
    }
}

}  // namespace

std::string newStateId() {
    return std::to_string(std::chrono::system_clock::now().time_since_epoch().count());
}

Hox::ObserverTree::DataTreeValPtr stateIdToValue(const std::string& stateId) {
    StringValue outer;
    outer.set_value(toJson(stateId));
    return std::make_shared<const Hox::ObserverTree::DataTreeVal>(std::move(outer));
}

bool isStateId(const Hox::ObserverTree::DataTreeVal& value) {
    return valueToStateId(value).has_value();
}

bool holdsStateId(const Hox::ObserverTree::DataTreeVal& value, const std::string& stateId) {
    return valueToStateId(value) == stateId;
}

}  // namespace Hox::Capability::Configuration
