#pragma once

#include <google/protobuf/message.h>

#include <vector>

#include "changes.pb.h"
#include "json_text.h"

namespace Hox::Ctl {

/// How two messages of one type differ, field by field. A field that is absent equals one with its
/// default value, and a message is not listed beside its own fields.
std::vector<FieldChange> fieldDifferences(const google::protobuf::Message& before,
                                          const google::protobuf::Message& after,
                                          const JsonText& json);

}  // namespace Hox::Ctl
