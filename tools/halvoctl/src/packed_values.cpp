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
    if (change.kind() != CHANGED) {
        return;
    }
    if (auto found = differences(change.previous(), change.current())) {
        for (auto& difference : *found) {
            *change.add_fields() = std::move(difference);
        }
    }
}

bool PackedValues::areSame(const Any& one, const Any& other) const {
    if (one.type_url() == other.type_url() && one.value() == other.value()) {
        return true;
    }
    auto before = one;
    auto after = other;
    unnest(before);
    unnest(after);
    const auto found = differences(before, after);
    return found && found->empty();
}

/// Nothing if the values are not of one known type.
std::optional<std::vector<FieldChange>> PackedValues::differences(const Any& before,
                                                                  const Any& after) const {
    if (before.type_url() != after.type_url()) {
        return std::nullopt;
    }
    const auto former = m_model.unpack(before);
    const auto latter = m_model.unpack(after);
    if (former == nullptr || latter == nullptr) {
        return std::nullopt;
    }
    return fieldDifferences(*former, *latter, m_json);
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
