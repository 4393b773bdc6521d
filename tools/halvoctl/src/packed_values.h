#pragma once

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <memory>
#include <string>

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

    /// The value on one line; of an unknown type its name and size.
    std::string text(const google::protobuf::Any& value) const;

    /// Messages as JSON.
    const JsonText& json() const { return m_json; }

private:
    void unnest(google::protobuf::Any& value) const;

    const ServiceModel& m_model;
    JsonText m_json;
};

}  // namespace Hox::Ctl
