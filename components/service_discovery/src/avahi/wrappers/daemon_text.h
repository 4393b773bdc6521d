#pragma once

#include <string>

namespace Hox::Service::Discovery::Avahi {

/// Whether the text can be sent to the daemon: UTF-8 without a zero byte. The bus library ends the
/// process over any other.
bool isDaemonText(const std::string& text);

/// The text as Avahi takes an optional one: null where it is empty.
const char* orNull(const std::string& text);

}  // namespace Hox::Service::Discovery::Avahi
