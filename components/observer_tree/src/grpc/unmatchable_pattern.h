#pragma once

#include <google/protobuf/message.h>

#include <optional>
#include <string>

namespace Hox::ObserverTree {

/// Returns the reason why the key pattern of an ObserveReq can never match: a literal component
/// after its "**". Nothing for other patterns, including malformed ones, and for other requests.
std::optional<std::string> findUnmatchablePattern(const google::protobuf::Message& request);

}  // namespace Hox::ObserverTree
