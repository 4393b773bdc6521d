#include "state_id.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <chrono>
#include <optional>

#include "hox/cpputil/error/error.h"

namespace Hox::Capability::Configuration {

using google::protobuf::Any;
using google::protobuf::StringValue;

namespace {

std::optional<std::string> valueToStateId(const Hox::ObserverTree::DataTreeVal& value) {
    try {
        Any packed;
        StringValue stateId;
        const auto& json = value.get<StringValue>().value();
        if (google::protobuf::util::JsonStringToMessage(json, &packed).ok() &&
            packed.UnpackTo(&stateId)) {
            return stateId.value();
        }
    } catch (const Hox::Error&) {
        // Not the form that this service writes.
    }
    return std::nullopt;
}

}  // namespace

std::string newStateId() {
    return std::to_string(std::chrono::system_clock::now().time_since_epoch().count());
}

Hox::ObserverTree::DataTreeValPtr stateIdToValue(const std::string& stateId) {
    StringValue inner;
    inner.set_value(stateId);
    Any packed;
    packed.PackFrom(inner);
    StringValue outer;
    static_cast<void>(google::protobuf::util::MessageToJsonString(packed, outer.mutable_value()));
    return std::make_shared<const Hox::ObserverTree::DataTreeVal>(std::move(outer));
}

bool holdsStateId(const Hox::ObserverTree::DataTreeVal& value, const std::string& stateId) {
    return valueToStateId(value) == stateId;
}

}  // namespace Hox::Capability::Configuration
