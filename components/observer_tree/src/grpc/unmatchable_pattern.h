#pragma once

#include <google/protobuf/message.h>

#include <optional>
#include <string>

namespace Hox::ObserverTree {

/// Says why the key pattern of an ObserveReq can never be matched: a literal component stands
/// behind its "**". Nothing for other patterns, malformed ones included, and other requests.
std::optional<std::string> findUnmatchablePattern(const google::protobuf::Message& request);

}  // namespace Hox::ObserverTree
