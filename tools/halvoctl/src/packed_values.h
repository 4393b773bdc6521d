#pragma once

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "changes.pb.h"
#include "json_text.h"
#include "service_model.h"

namespace Hox::Ctl {

/// The values of a service's tree for a reader: unpacked, compared and as text.
class PackedValues {
public:
    /// The model must outlive this object.
    explicit PackedValues(const ServiceModel& model) : m_model(model), m_json(model.pool()) {}

    /// Completes a change as it comes from a tree: a text that holds a value in its JSON form is
    /// replaced by that value, and the fields that differ are added.
    void complete(Change& change) const;

    /// Whether both values mean the same; of an unknown type, whether they have the same bytes.
    bool areSame(const google::protobuf::Any& one, const google::protobuf::Any& other) const;

    /// The value on one line; of an unknown type its name and size.
    std::string text(const google::protobuf::Any& value) const;

    /// Messages as JSON.
    const JsonText& json() const { return m_json; }

private:
    std::optional<std::vector<FieldChange>> differences(const google::protobuf::Any& before,
                                                        const google::protobuf::Any& after) const;
    void unnest(google::protobuf::Any& value) const;

    const ServiceModel& m_model;
    JsonText m_json;
};

}  // namespace Hox::Ctl
