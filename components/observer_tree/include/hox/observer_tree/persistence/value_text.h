#pragma once

#include <google/protobuf/any.pb.h>

#include <map>
#include <string>

namespace Hox::ObserverTree {

/// The text of the file that holds the value: its JSON form, or {"@type": ..., "@bytes": <base64>}
/// if JSON cannot represent it exactly, for example for a type that this program does not know.
/// Throws InvalidArgumentError for a type URL that is not UTF-8.
std::string textOfValue(const google::protobuf::Any& value);

/// Reads either form. False, with an empty value, for any other text.
bool valueFromText(const std::string& text, google::protobuf::Any& value);

/// The members of a JSON object whose values are texts; none for any other text.
std::map<std::string, std::string> textMembersOf(const std::string& json);

}  // namespace Hox::ObserverTree
