#pragma once

#include <google/protobuf/struct.pb.h>

#include <string>

namespace Hox::Ctl {

/// What is wrong with the text of a saved value; empty if a service that knows its type loads it as
/// it is.
std::string faultOf(const std::string& text);

/// The saved value on one line: a text in quotes, anything else in its JSON form.
std::string shownValue(const std::string& text);

/// The saved value as it is used by programs: a text without quotes, anything else in its JSON
/// form.
std::string plainValue(const std::string& text);

/// The saved value as JSON; a text if it is none.
google::protobuf::Value jsonValue(const std::string& text);

}  // namespace Hox::Ctl
