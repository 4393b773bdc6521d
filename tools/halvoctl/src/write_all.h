#pragma once

#include <string_view>

namespace Hox::Ctl {

/// Writes the whole text to the open file, however the system cuts it. Returns false, with errno
/// set, if that fails; then a part may be written.
bool writeAll(int file, std::string_view text);

}  // namespace Hox::Ctl
