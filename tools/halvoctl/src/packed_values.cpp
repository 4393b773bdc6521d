#include "packed_values.h"

#include <fmt/format.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <algorithm>

#include "field_differences.h"
#include "printable.h"

namespace Hox::Ctl {

using google::protobuf::Any;
using google::protobuf::Message;

namespace {

/// The text of a StringValue, if it may be the JSON form of an object or a list.
std::string jsonCandidate(const Any& value) {
    google::protobuf::StringValue text;
    if (!value.Is<google::protobuf::StringValue>() || !value.UnpackTo(&text) ||
        text.value().empty() || (text.value().front() != '{' && text.value().front() != '[')) {
        return {};
    }
    return text.value();
}

bool isJson(const std::string& text) {
    google::protobuf::Value parsed;
    return google::protobuf::util::JsonStringToMessage(text, &parsed).ok();
}

}  // namespace

void PackedValues::unnest(Any& value) const {
    const auto text = jsonCandidate(value);
    const auto* const type = text.empty() ? nullptr : m_model.findMessage("google.protobuf.Any");
    if (type == nullptr) {
        return;
    }
    // Of the service's own types, so that its types are found in the text.
    const auto inner = m_model.make(*type);
    Any found;
    if (google::protobuf::util::JsonStringToMessage(text, inner.get()).ok() &&
        found.ParseFromString(inner->SerializeAsString()) && !found.type_url().empty()) {
        value = found;
    }
}

void PackedValues::complete(Change& change) const {
    if (change.has_current()) {
        unnest(*change.mutable_current());
    }
    if (change.has_previous()) {
        unnest(*change.mutable_previous());
    }
    if (change.kind() != CHANGED || change.current().type_url() != change.previous().type_url()) {
        return;
    }
    const auto before = m_model.unpack(change.previous());
    const auto after = m_model.unpack(change.current());
    if (before != nullptr && after != nullptr) {
        for (auto& difference : fieldDifferences(*before, *after, m_json)) {
            *change.add_fields() = std::move(difference);
        }
    }
}

std::string PackedValues::text(const Any& value) const {
    const auto nested = jsonCandidate(value);
    if (!nested.empty() && isJson(nested)) {
        auto line = nested;
        std::replace_if(
            line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r' || c == '\t'; },
            ' ');
        return printable(line);
    }
    if (const auto message = m_model.unpack(value)) {
        return printable(m_json.line(*message));
    }
    const auto& url = value.type_url();
    return fmt::format("({}, {} bytes)", printable(url.substr(url.rfind('/') + 1)),
                       value.value().size());
}

}  // namespace Hox::Ctl
